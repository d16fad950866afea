#pragma once

#include <unistd.h>
#include <cerrno>
#include <utility>

/// Owns a file descriptor; closes it at the end. -1: none.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }

    int Get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int Release() { return std::exchange(fd_, -1); }
    void Reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old < 0) return;
        // Callers read errno after a failed call whose descriptors are closed on the way out.
        const int error = errno;
        ::close(old);
        errno = error;
    }

  private:
    int fd_ = -1;
};
