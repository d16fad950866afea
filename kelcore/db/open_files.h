#pragma once

#include <chrono>
#include <optional>
#include <utility>

#include "kel/types.h"

/// The right to open a database file, held by one connection of the process at a time. Any thread.
class OpenFileClaim {
  public:
    /// Claims the file at `realPath` (absolute, links resolved); nothing when it stays claimed for `wait`.
    static std::optional<OpenFileClaim> Take(const KelString& realPath, std::chrono::milliseconds wait);

    OpenFileClaim(OpenFileClaim&& other) noexcept : realPath_(std::exchange(other.realPath_, {})) {}
    OpenFileClaim& operator=(OpenFileClaim&&) = delete;
    ~OpenFileClaim();

    const KelString& RealPath() const { return realPath_; }

  private:
    explicit OpenFileClaim(KelString realPath) : realPath_(std::move(realPath)) {}

    KelString realPath_;  // empty once moved from
};
