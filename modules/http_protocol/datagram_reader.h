#pragma once

#include <sys/socket.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace kelhttp {

/// Reads the datagrams that wait at UDP sockets, many with one system call. Its buffers, at most 2 MiB, serve
/// any number of sockets; they are made at the first read. One thread at a time.
class DatagramReader {
  public:
    /// Has a socket hand over datagrams that arrived together as one buffer, where the kernel can, and report
    /// how many it had to drop.
    static void Prepare(int socket);

    /// What waits at the socket, in the order of arrival, up to what the buffers hold; valid until the next
    /// call. Empty when nothing waits.
    std::span<const std::string_view> Read(int socket);

    /// How many datagrams the kernel has dropped at the socket that was read last, because the buffer of the
    /// socket was full; counted since the socket was made and modulo 2^32. 0 while it has not said.
    std::uint32_t KernelDrops() const { return kernelDrops_; }

    /// True when the last read has filled the buffers, so that more may wait.
    bool IsFull() const { return isFull_; }

  private:
    void MakeBuffers();
    void TakeMessage(std::size_t index);

    std::unique_ptr<char[]> bytes_;
    std::vector<char> control_;
    std::vector<iovec> pieces_;
    std::vector<mmsghdr> envelopes_;
    std::vector<std::string_view> datagrams_;
    std::uint32_t kernelDrops_ = 0;
    bool isFull_ = false;
};

}  // namespace kelhttp
