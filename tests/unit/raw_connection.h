#pragma once

#include <sys/socket.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kel/unique_fd.h"

/// One end of a TCP connection in a test that writes and reads HTTP byte by byte.
class RawConnection {
  public:
    explicit RawConnection(UniqueFd socket) : socket_(std::move(socket)) {}

    bool Send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(Fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }
    /// Takes the next `size` bytes; nothing when the connection ends or falls silent first.
    std::optional<std::string> Take(std::size_t size) {
        while (buffer_.size() < size) {
            if (!Fill()) return std::nullopt;
        }
        std::string bytes = buffer_.substr(0, size);
        buffer_.erase(0, size);
        return bytes;
    }
    /// Takes the lines up to an empty one, which is left out.
    std::optional<std::string> TakeHead() {
        std::size_t end;
        while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
            if (!Fill()) return std::nullopt;
        }
        std::string head = *Take(end + 4);
        head.resize(end + 2);
        return head;
    }
    /// Reads and drops everything up to the end of the connection or a time-out.
    void Drain() {
        while (Fill())
            buffer_.clear();
    }
    int Fd() const { return socket_.Get(); }

  private:
    bool Fill() {
        char bytes[65536];
        const ssize_t got = ::recv(Fd(), bytes, sizeof bytes, 0);
        if (got > 0) buffer_.append(bytes, static_cast<std::size_t>(got));
        return got > 0;
    }

    UniqueFd socket_;
    std::string buffer_;
};
