// Preloaded into a program: makes its file calls fail as a control file says, which may change while it runs.
//
//   FAULT_SHIM_CONTROL  path of the control file; every fault is appended to <path>.log as "operation path"
//   FAULT_SHIM_SEED     seed of the probabilities
//
// Each line of the control file is a rule "OPERATIONS ERROR SHARE PATTERN":
//
//   OPERATIONS  joined by commas: write, sync, rename, mkdir, link, open (for writing), read (open to read)
//   ERROR       ENOSPC or EIO
//   SHARE       of the matching calls that fails, 0 to 1
//   PATTERN     of the absolute path, as for fnmatch; '*' matches '/', too; the rest of the line
//
// Two limits: what stdio writes from its own buffer is seen at fwrite, and content sent with sendfile is not
// seen.

#include <dlfcn.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Rule {
    std::string operations, pattern;
    int error = EIO;
    double share = 0;

    bool Concerns(const std::string& operation, const std::string& path) const {
        return ("," + operations + ",").find("," + operation + ",") != std::string::npos &&
               fnmatch(pattern.c_str(), path.c_str(), 0) == 0;
    }
};

/// The rules as last read. One for the process, never destroyed: calls come until its very end.
class Faults {
  public:
    static Faults& Get() {
        static auto* faults = new Faults;
        return *faults;
    }

    /// The error that the call gets, 0 when it is to be made. The path is found out only when there are
    /// rules, so that a program without them runs at full speed.
    template <class FindPath>
    int Of(const char* operation, const FindPath& findPath) {
        const std::lock_guard lock(mutex_);
        Refresh();
        if (rules_.empty()) return 0;
        const std::string path = findPath();
        for (const Rule& rule : rules_) {
            if (!rule.Concerns(operation, path) || chance_(random_) >= rule.share) continue;
            Log(std::string(operation) + " " + path + "\n");
            return rule.error;
        }
        return 0;
    }

  private:
    Faults() {
        if (const char* path = std::getenv("FAULT_SHIM_CONTROL")) control_ = path;
        if (const char* seed = std::getenv("FAULT_SHIM_SEED")) random_.seed(std::strtoul(seed, nullptr, 10));
    }

    /// The file is replaced by a rename, so another inode means other rules.
    void Refresh() {
        struct stat status {};
        const bool exists = syscall(SYS_newfstatat, AT_FDCWD, control_.c_str(), &status, 0) == 0;
        const std::array<long, 3> version = {static_cast<long>(status.st_ino), status.st_mtim.tv_sec,
                                             status.st_mtim.tv_nsec};
        if (exists && version == version_) return;
        version_ = version;
        rules_.clear();
        if (exists) Read();
    }

    void Read() {
        const long file = syscall(SYS_openat, AT_FDCWD, control_.c_str(), O_RDONLY | O_CLOEXEC);
        std::string text;
        std::array<char, 4096> block;
        for (long count; (count = syscall(SYS_read, file, block.data(), block.size())) > 0;)
            text.append(block.data(), static_cast<std::size_t>(count));
        syscall(SYS_close, file);
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            std::istringstream words(line);
            Rule rule;
            std::string error;
            words >> rule.operations >> error >> rule.share >> std::ws;
            std::getline(words, rule.pattern);
            if (error == "ENOSPC") rule.error = ENOSPC;
            rules_.push_back(rule);
        }
    }

    void Log(const std::string& line) const {
        const long file = syscall(SYS_openat, AT_FDCWD, (control_ + ".log").c_str(),
                                  O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        syscall(SYS_write, file, line.data(), line.size());
        syscall(SYS_close, file);
    }

    std::mutex mutex_;
    std::string control_;
    std::array<long, 3> version_{};
    std::vector<Rule> rules_;
    std::mt19937_64 random_{1};
    std::uniform_real_distribution<double> chance_{0, 1};
};

std::string LinkTarget(const std::string& link) {
    std::array<char, 4096> target;
    const long length = readlink(link.c_str(), target.data(), target.size());
    return length < 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

std::string PathOf(int file) {
    return LinkTarget("/proc/self/fd/" + std::to_string(file));
}

/// With single slashes only.
std::string PathOf(int folder, const char* path) {
    std::string whole = path == nullptr ? "" : path;
    if (!whole.starts_with('/'))
        whole = (folder == AT_FDCWD ? LinkTarget("/proc/self/cwd") : PathOf(folder)) + "/" + whole;
    const auto isSecond = [](char left, char right) { return left == '/' && right == '/'; };
    whole.erase(std::unique(whole.begin(), whole.end(), isSecond), whole.end());
    return whole;
}

/// True, with errno set, when the call is to fail.
template <class... Place>
bool Fails(const char* operation, Place... place) {
    const int before = errno;
    const int error = Faults::Get().Of(operation, [&] { return PathOf(place...); });
    errno = error != 0 ? error : before;
    return error != 0;
}

const char* OpenOperation(long flags) {
    return (flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0 ? "open" : "read";
}

template <class Function>
Function* Next(Function* /*own*/, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// A wrapper of the function `name`, which gives `failed` when the operation on the path is to fail.
#define WRAP(type, name, failed, parameters, arguments, operation, ...) \
    type name parameters {                                              \
        static const auto next = Next(&::name, #name);                  \
        return Fails(operation, __VA_ARGS__) ? failed : next arguments; \
    }

// The same for the functions that take a mode after `flags`, which is read also where there is none.
#define WRAP_OPEN(name, parameters, arguments, ...)                            \
    int name parameters {                                                      \
        static const auto next = Next<int parameters>(name, #name);            \
        va_list rest;                                                          \
        va_start(rest, flags);                                                 \
        const mode_t mode = va_arg(rest, mode_t);                              \
        va_end(rest);                                                          \
        return Fails(OpenOperation(flags), __VA_ARGS__) ? -1 : next arguments; \
    }

extern "C" {

// clang-format off
WRAP_OPEN(open, (const char* path, int flags, ...), (path, flags, mode), AT_FDCWD, path)
WRAP_OPEN(open64, (const char* path, int flags, ...), (path, flags, mode), AT_FDCWD, path)
WRAP_OPEN(openat, (int folder, const char* path, int flags, ...), (folder, path, flags, mode), folder, path)
WRAP_OPEN(openat64, (int folder, const char* path, int flags, ...), (folder, path, flags, mode), folder, path)
WRAP(int, mkostemp, -1, (char* path, int flags), (path, flags), "open", AT_FDCWD, path)
WRAP(int, mkstemp, -1, (char* path), (path), "open", AT_FDCWD, path)
WRAP(ssize_t, write, -1, (int file, const void* data, size_t size), (file, data, size), "write", file)
WRAP(ssize_t, pwrite, -1, (int file, const void* data, size_t size, off_t offset), (file, data, size, offset), "write", file)
WRAP(ssize_t, pwrite64, -1, (int file, const void* data, size_t size, off64_t offset), (file, data, size, offset), "write", file)
WRAP(ssize_t, writev, -1, (int file, const iovec* parts, int count), (file, parts, count), "write", file)
WRAP(ssize_t, copy_file_range, -1, (int from, off64_t* fromOffset, int file, off64_t* offset, size_t size, unsigned int flags),
     (from, fromOffset, file, offset, size, flags), "write", file)
WRAP(int, fallocate, -1, (int file, int mode, off_t offset, off_t size), (file, mode, offset, size), "write", file)
WRAP(size_t, fwrite, 0, (const void* data, size_t size, size_t count, FILE* stream), (data, size, count, stream), "write", fileno(stream))
WRAP(int, fsync, -1, (int file), (file), "sync", file)
WRAP(int, fdatasync, -1, (int file), (file), "sync", file)
WRAP(int, rename, -1, (const char* from, const char* to) noexcept, (from, to), "rename", AT_FDCWD, to)
WRAP(int, renameat, -1, (int fromFolder, const char* from, int folder, const char* to) noexcept, (fromFolder, from, folder, to),
     "rename", folder, to)
WRAP(int, renameat2, -1, (int fromFolder, const char* from, int folder, const char* to, unsigned int flags) noexcept,
     (fromFolder, from, folder, to, flags), "rename", folder, to)
WRAP(int, mkdir, -1, (const char* path, mode_t mode) noexcept, (path, mode), "mkdir", AT_FDCWD, path)
WRAP(int, link, -1, (const char* from, const char* to) noexcept, (from, to), "link", AT_FDCWD, to)
WRAP(int, linkat, -1, (int fromFolder, const char* from, int folder, const char* to, int flags) noexcept,
     (fromFolder, from, folder, to, flags), "link", folder, to)
// clang-format on

/// Only openat2, which has no function of its own, is looked at.
long syscall(long number, ...) noexcept {
    static const auto next = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    std::array<long, 6> a;
    va_list rest;
    va_start(rest, number);
    for (long& argument : a)
        argument = va_arg(rest, long);
    va_end(rest);
    if (number == SYS_openat2 &&
        Fails(OpenOperation(static_cast<long>(reinterpret_cast<open_how*>(a[2])->flags)),
              static_cast<int>(a[0]), reinterpret_cast<const char*>(a[1])))
        return -1;
    return next(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

}  // extern "C"
