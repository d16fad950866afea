#pragma once

#include <mutex>
#include <utility>
#include <vector>

#include "kel/debug.h"

/// Keeps the lines that are logged, for a test to look at.
class KeptLog : public KelDebugContext {
  public:
    void Write(KelDebugLevel level, const KelString&, const KelString& line) override {
        const std::lock_guard lock(mutex_);
        lines_.emplace_back(level, line);
    }
    KelDebugLevel Level() const override { return KelDebugLevel::Trace; }

    /// Lines of at least `level` that hold `part`.
    int Count(KelDebugLevel level, const KelString& part) const {
        const std::lock_guard lock(mutex_);
        int count = 0;
        for (const auto& [lineLevel, line] : lines_) {
            if (lineLevel >= level && line.find(part) != KelString::npos) ++count;
        }
        return count;
    }
    /// Warnings and errors since the last call; everything kept is dropped.
    KelVector<KelString> TakeProblems() {
        const std::lock_guard lock(mutex_);
        KelVector<KelString> problems;
        for (const auto& [level, line] : std::exchange(lines_, {})) {
            if (level >= KelDebugLevel::Warning) problems.push_back(line);
        }
        return problems;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::pair<KelDebugLevel, KelString>> lines_;
};
