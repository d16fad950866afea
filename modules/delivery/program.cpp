#include "modules/delivery/program.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>

#include "kel/unique_fd.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kGrace(2);
constexpr int kPollMilliseconds = 100;
constexpr std::size_t kReadBytes = 4096;
constexpr std::size_t kPipeBytes = 65536;

KelVector<char*> Pointers(const KelVector<KelString>& texts) {
    KelVector<char*> pointers;
    for (const KelString& text : texts)
        pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

/// What a program may know of the agent's environment: where things are, and the language. Not, for instance,
/// the socket of the service manager, or variables that change how programs are loaded.
constexpr std::array<std::string_view, 8> kInherited = {
    "PATH=", "HOME=", "USER=", "LOGNAME=", "TZ=", "LANG=", "LC_", "TMPDIR="};
constexpr const char* kUsualPath = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

KelVector<KelString> FullEnvironment(const KelVector<KelString>& added) {
    KelVector<KelString> all = added;
    for (char** entry = environ; *entry != nullptr; ++entry)
        if (std::ranges::any_of(kInherited, [entry](std::string_view name) {
                return std::string_view(*entry).starts_with(name);
            }))
            all.emplace_back(*entry);
    if (std::getenv("PATH") == nullptr) all.emplace_back(kUsualPath);
    return all;
}

/// The attributes and file actions of a spawn: own process group, default signals, output to `output`, and no
/// other descriptor of this process: a program that outlives it must not keep its sockets.
class SpawnSettings {
  public:
    explicit SpawnSettings(int output) {
        posix_spawnattr_init(&attributes_);
        posix_spawn_file_actions_init(&actions_);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes_, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&attributes_, &signals);
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setflags(&attributes_,
                                 POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO);
        posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    }
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    int Spawn(const Program& program, pid_t& pid) const {
        const KelVector<KelString> environment = FullEnvironment(program.environment);
        return posix_spawn(&pid, program.arguments.front().c_str(), &actions_, &attributes_,
                           Pointers(program.arguments).data(), Pointers(environment).data());
    }

  private:
    posix_spawnattr_t attributes_;
    posix_spawn_file_actions_t actions_;
};

/// Gives this thread an umask of its own, so that a program inherits that of the agent's start while other
/// threads create files.
class ProgramUmask {
  public:
    explicit ProgramUmask(unsigned int mask) : isOwn_(unshare(CLONE_FS) == 0) {
        if (isOwn_) old_ = umask(mask);
    }
    ~ProgramUmask() {
        if (isOwn_) umask(old_);
    }
    ProgramUmask(const ProgramUmask&) = delete;
    ProgramUmask& operator=(const ProgramUmask&) = delete;

  private:
    bool isOwn_;
    mode_t old_ = 0;
};

int Spawn(const Program& program, int output, pid_t& pid) {
    const SpawnSettings settings(output);
    const ProgramUmask own(program.umask);
    return settings.Spawn(program, pid);
}

/// Cuts the bytes from a pipe into lines.
class LineReader {
  public:
    LineReader(UniqueFd pipe, const std::function<void(const KelString&)>& output)
        : pipe_(std::move(pipe)), output_(output) {}

    /// Waits up to `milliseconds` for output and passes it on; false at the end of the output.
    bool ReadSome(int milliseconds) {
        if (!HasInput(milliseconds)) return true;
        std::array<char, kReadBytes> buffer{};
        const ssize_t count = read(pipe_.Get(), buffer.data(), buffer.size());
        if (count < 0) return errno == EINTR || errno == EAGAIN;
        for (const char c : std::string_view(buffer.data(), static_cast<std::size_t>(count)))
            Take(c);
        return count > 0;
    }

    /// Passes on what is still in the pipe, but no more than it can hold: child processes that the program
    /// left running may write on.
    void Drain() {
        std::size_t reads = kPipeBytes / kReadBytes;
        while (reads-- > 0 && HasInput(0) && ReadSome(0)) {
        }
        if (!line_.empty()) Take('\n');
    }

  private:
    bool HasInput(int milliseconds) const {
        pollfd wait = {pipe_.Get(), POLLIN, 0};
        return poll(&wait, 1, milliseconds) > 0;
    }

    void Take(char c) {
        if (c != '\n' && line_.size() < kMaxLineBytes) {
            line_ += c;
            return;
        }
        if (output_) output_(line_);
        line_.clear();
        if (c != '\n') line_ += c;
    }

    UniqueFd pipe_;
    const std::function<void(const KelString&)>& output_;
    KelString line_;
};

/// Watches a started program until it has ended.
class ProgramWatch {
  public:
    ProgramWatch(const Program& program, pid_t pid) : program_(program), pid_(pid) {}

    ProgramResult WaitFor(LineReader& reader) {
        bool hasOutput = true;
        int status = 0;
        while (!Reap(status)) {
            if (hasOutput) {
                hasOutput = reader.ReadSome(kPollMilliseconds);
            } else {
                poll(nullptr, 0, kPollMilliseconds);
            }
            StopWhenDue();
        }
        reader.Drain();
        return ResultOf(status);
    }

  private:
    /// True when the program has ended; collects its status, which the system then forgets.
    bool Reap(int& status) const {
        const pid_t ended = waitpid(pid_, &status, WNOHANG);
        return ended == pid_ || (ended < 0 && errno != EINTR);
    }

    void StopWhenDue() {
        const auto now = Clock::now();
        if (stopped_ != ProgramResult::End::NotStarted) {
            if (now - stopTime_ >= kGrace) kill(-pid_, SIGKILL);
            return;
        }
        if (program_.cancelled && program_.cancelled()) {
            stopped_ = ProgramResult::End::Cancelled;
        } else if (now - startTime_ >= program_.timeout) {
            stopped_ = ProgramResult::End::TimedOut;
        } else {
            return;
        }
        stopTime_ = now;
        kill(-pid_, SIGTERM);
    }

    ProgramResult ResultOf(int status) const {
        const bool isSignalled = WIFSIGNALED(status);
        const int code = isSignalled ? WTERMSIG(status) : WEXITSTATUS(status);
        if (stopped_ != ProgramResult::End::NotStarted) return {stopped_, code};
        return {isSignalled ? ProgramResult::End::Killed : ProgramResult::End::Exited, code};
    }

    const Program& program_;
    pid_t pid_;
    Clock::time_point startTime_ = Clock::now();
    Clock::time_point stopTime_;
    ProgramResult::End stopped_ = ProgramResult::End::NotStarted;
};

}  // namespace

ProgramResult RunProgram(const Program& program) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return {ProgramResult::End::NotStarted, errno};
    UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    pid_t pid = 0;
    if (const int error = Spawn(program, writeEnd.Get(), pid); error != 0) {
        return {ProgramResult::End::NotStarted, error};
    }
    writeEnd.Reset();  // the program's end of the pipe is now the only one, so reading it comes to an end
    LineReader reader(std::move(readEnd), program.output);
    return ProgramWatch(program, pid).WaitFor(reader);
}
