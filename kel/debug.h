#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "kel/format.h"
#include "kel/types.h"

enum class KelDebugLevel { Trace, Detail, Print, Warning, Error, None };

/// How many lines of this level the logs of the process were given. Any thread.
std::uint64_t KelDebugLineCount(KelDebugLevel level);

/// The level named "trace", "detail", "print", "warning", "error" or "none" (any case), or `fallback`.
KelDebugLevel ParseDebugLevel(std::string_view name, KelDebugLevel fallback);

/// The destination of log lines: one per process, made by the agent and shared by all logs. Thread-safe.
class KelDebugContext {
  public:
    virtual ~KelDebugContext() = default;
    /// Takes one line without its line end. `module` is the name of the log that wrote it.
    virtual void Write(KelDebugLevel level, const KelString& module, const KelString& line) = 0;
    virtual KelDebugLevel Level() const = 0;
};

/// A context that writes to a rotating file (`maxBytes` each, `files` kept; none when `path` is empty) and,
/// with `toStderr`, to stderr, in the form of the system's journal when stderr is connected to it. Folders of
/// `path` are made. Throws std::runtime_error when the file cannot be opened.
std::shared_ptr<KelDebugContext> MakeDebugContext(const KelString& path, std::size_t maxBytes,
                                                  std::size_t files, bool toStderr, KelDebugLevel level);

/// The log of one module. Lines written before a context is set go nowhere, except warnings and errors, which
/// go to stderr. Every text ends in a newline; control characters inside it are written as escapes, so that a
/// name from outside cannot forge a line. All operations may be called from any thread.
class KelDebug {
  public:
    KelDebug(const char* module, const char* displayName);

    /// Sets the destination of lines; an empty pointer removes it.
    void SetContext(std::shared_ptr<KelDebugContext> context);

    const KelString& DisplayName() const { return displayName_; }

    template <class... Arguments>
    void Trace(KelFormatString<Arguments...> format, const Arguments&... arguments) const {
        if (IsOn(KelDebugLevel::Trace))
            Write(KelDebugLevel::Trace, KelFormat<Arguments...>(format, arguments...));
    }
    template <class... Arguments>
    void Detail(KelFormatString<Arguments...> format, const Arguments&... arguments) const {
        if (IsOn(KelDebugLevel::Detail))
            Write(KelDebugLevel::Detail, KelFormat<Arguments...>(format, arguments...));
    }
    template <class... Arguments>
    void Print(KelFormatString<Arguments...> format, const Arguments&... arguments) const {
        if (IsOn(KelDebugLevel::Print))
            Write(KelDebugLevel::Print, KelFormat<Arguments...>(format, arguments...));
    }
    template <class... Arguments>
    void Warning(KelFormatString<Arguments...> format, const Arguments&... arguments) const {
        if (IsOn(KelDebugLevel::Warning))
            Write(KelDebugLevel::Warning, KelFormat<Arguments...>(format, arguments...));
    }
    template <class... Arguments>
    void Error(KelFormatString<Arguments...> format, const Arguments&... arguments) const {
        if (IsOn(KelDebugLevel::Error))
            Write(KelDebugLevel::Error, KelFormat<Arguments...>(format, arguments...));
    }

    bool IsOn(KelDebugLevel level) const;

  private:
    void Write(KelDebugLevel level, const KelString& text) const;

    KelString module_;
    KelString displayName_;
    std::atomic<KelDebugContext*> context_ = nullptr;  ///< read without the mutex by every line
    std::mutex mutex_;                                 ///< guards owned_
    std::vector<std::shared_ptr<KelDebugContext>>
        owned_;  ///< every context ever set: a line in flight may still use an old one
};
