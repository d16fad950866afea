#include "kel/debug.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <utility>

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include "kel/path.h"
#include "kel/text.h"

namespace {

constexpr std::array<const char*, 6> kLevelNames = {"TRACE", "DETAIL", "PRINT", "WARNING", "ERROR", "NONE"};

const char* LevelName(KelDebugLevel level) {
    return kLevelNames[static_cast<std::size_t>(level)];
}

/// The present time in UTC, as "2026-01-02T03:04:05.678Z" (ISO 8601).
KelString TimeStamp() {
    using std::chrono::milliseconds;
    const auto sinceEpoch =
        std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch());
    const std::time_t seconds = static_cast<std::time_t>(sinceEpoch.count() / 1000);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(sinceEpoch.count() % 1000));
    return text;
}

KelString LogLine(KelDebugLevel level, const KelString& module, const KelString& line) {
    return TimeStamp() + " " + LevelName(level) + " " + module + " " + line + "\n";
}

/// A line for the system's journal, which knows the time and takes the priority (as in syslog) from "<N>".
KelString JournalLine(KelDebugLevel level, const KelString& module, const KelString& line) {
    constexpr std::array<char, 6> kPriorities = {'7', '7', '6', '4', '3', '6'};
    return KelString("<") + kPriorities[static_cast<std::size_t>(level)] + ">" + module + ": " + line + "\n";
}

/// True when the service manager has connected stderr to the journal: JOURNAL_STREAM then names its device
/// and inode. A program that inherits the variable may have another stderr.
bool StderrIsJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

/// One call, so that lines of different threads do not mix.
void WriteToStderr(const KelString& line) {
    std::fwrite(line.data(), 1, line.size(), stderr);
}

/// `text` without its last line end, control characters (C1 included) as \xNN.
KelString OneLine(std::string_view text) {
    if (text.ends_with('\n')) text.remove_suffix(1);
    KelString line;
    line.reserve(text.size());
    constexpr char kDigits[] = "0123456789ABCDEF";
    const auto escape = [&](char c) {
        line += KelString("\\x") + kDigits[static_cast<unsigned char>(c) >> 4] +
                kDigits[static_cast<unsigned char>(c) & 0xF];
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        // U+0080 to U+009F in UTF-8
        const bool isC1 = text[i] == '\xC2' && i + 1 < text.size() && (text[i + 1] & 0xE0) == 0x80;
        if (isC1) escape(text[i++]);
        if (isC1 || HasControlCharacter(text.substr(i, 1)))
            escape(text[i]);
        else
            line += text[i];
    }
    return line;
}

class FileContext : public KelDebugContext {
  public:
    FileContext(const KelString& path, std::size_t maxBytes, std::size_t files, bool toStderr,
                KelDebugLevel level)
        : path_(path), toStderr_(toStderr), level_(level) {
        if (path.empty()) return;
        KelString folder;
        KelString name;
        SplitPath(path, folder, name);
        if (!folder.empty()) PathCreate(folder);
        try {
            // The sink counts the files besides the present one.
            sink_ = std::make_unique<spdlog::sinks::rotating_file_sink_mt>(
                path, std::max<std::size_t>(maxBytes, 1), std::max<std::size_t>(files, 1) - 1);
        } catch (const std::exception& error) {
            throw std::runtime_error("The log file \"" + path + "\" cannot be opened: " + error.what());
        }
        sink_->set_formatter(
            std::make_unique<spdlog::pattern_formatter>("%v", spdlog::pattern_time_type::utc, ""));
    }

    void Write(KelDebugLevel level, const KelString& module, const KelString& line) override {
        if (level < level_ || level == KelDebugLevel::None) return;
        const KelString text = LogLine(level, module, line);
        if (toStderr_) WriteToStderr(isJournal_ ? JournalLine(level, module, line) : text);
        if (sink_) WriteToFile(text);
    }

    KelDebugLevel Level() const override { return level_; }

  private:
    /// Every line is handed to the kernel at once: the last ones before a crash matter most.
    void WriteToFile(const KelString& text) {
        try {
            sink_->log(spdlog::details::log_msg("", spdlog::level::info, text));
            sink_->flush();
            failing_.store(false, std::memory_order_relaxed);
        } catch (const std::exception& error) {
            if (failing_.exchange(true)) return;
            WriteToStderr(LogLine(KelDebugLevel::Error, "Log",
                                  "The log file \"" + path_ + "\" cannot be written: " + error.what() +
                                      "; free disk space or check its rights"));
        }
    }

    const KelString path_;
    const bool toStderr_;
    const bool isJournal_ = StderrIsJournal();
    const KelDebugLevel level_;
    std::unique_ptr<spdlog::sinks::rotating_file_sink_mt> sink_;
    std::atomic<bool> failing_ = false;  ///< reported; not again before a line gets through
};

std::array<std::atomic<std::uint64_t>, kLevelNames.size()> lineCounts;

}  // namespace

std::uint64_t KelDebugLineCount(KelDebugLevel level) {
    return lineCounts[static_cast<std::size_t>(level)].load(std::memory_order_relaxed);
}

KelDebugLevel ParseDebugLevel(std::string_view name, KelDebugLevel fallback) {
    for (std::size_t i = 0; i < kLevelNames.size(); ++i)
        if (IsEqualTo(name, kLevelNames[i], false)) return static_cast<KelDebugLevel>(i);
    return fallback;
}

std::shared_ptr<KelDebugContext> MakeDebugContext(const KelString& path, std::size_t maxBytes,
                                                  std::size_t files, bool toStderr, KelDebugLevel level) {
    return std::make_shared<FileContext>(path, maxBytes, files, toStderr, level);
}

KelDebug::KelDebug(const char* module, const char* displayName)
    : module_(module), displayName_(displayName) {}

void KelDebug::SetContext(std::shared_ptr<KelDebugContext> context) {
    const std::lock_guard lock(mutex_);
    // A context is never released before the log: a line on another thread may be in it.
    KelDebugContext* present = context.get();
    if (context && std::find(owned_.begin(), owned_.end(), context) == owned_.end())
        owned_.push_back(std::move(context));
    context_.store(present, std::memory_order_release);
}

bool KelDebug::IsOn(KelDebugLevel level) const {
    const KelDebugContext* context = context_.load(std::memory_order_acquire);
    return level >= (context != nullptr ? context->Level() : KelDebugLevel::Warning);
}

void KelDebug::Write(KelDebugLevel level, const KelString& text) const {
    lineCounts[static_cast<std::size_t>(level)].fetch_add(1, std::memory_order_relaxed);
    const KelString line = OneLine(text);
    if (KelDebugContext* context = context_.load(std::memory_order_acquire))
        context->Write(level, module_, line);
    else if (level >= KelDebugLevel::Warning)
        WriteToStderr(LogLine(level, module_, line));
}
