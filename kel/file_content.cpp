#include "kel/file_content.h"

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <memory>

#include "kel/checksum.h"

namespace {

constexpr std::size_t kBufferBytes = std::size_t{256} << 10;
constexpr std::size_t kKernelCopyBytes = std::size_t{64} << 20;

/// `watch` gets the pieces that were written.
template <class Watch>
bool CopyPieces(int source, int destination, const Watch& watch) {
    const auto buffer = std::make_unique_for_overwrite<char[]>(kBufferBytes);
    for (;;) {
        const ssize_t got = ::read(source, buffer.get(), kBufferBytes);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got == 0;
        const std::string_view piece(buffer.get(), static_cast<std::size_t>(got));
        if (!FileWriteAll(destination, piece)) return false;
        watch(piece);
    }
}

}  // namespace

bool FileWriteAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = ::write(fd, content.data(), content.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

bool FileReadAll(int fd, std::uint64_t maxBytes, KelString& content) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) return false;
    content.clear();
    // Room for one byte more than the size says, so that the end is seen without another growth.
    const std::uint64_t expected =
        std::min<std::uint64_t>(static_cast<std::uint64_t>(status.st_size), maxBytes);
    std::size_t used = 0;
    content.resize(expected + 1);
    for (;;) {
        if (used == content.size()) content.resize(content.size() + kBufferBytes);
        const ssize_t got = ::read(fd, content.data() + used, content.size() - used);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        used += static_cast<std::size_t>(got);
        if (used > maxBytes) {
            errno = EFBIG;
            return false;
        }
        if (got == 0) break;
    }
    content.resize(used);
    return true;
}

bool FileCopyContent(int source, int destination) {
    for (bool hasCopied = false;;) {
        const ssize_t copied = ::copy_file_range(source, nullptr, destination, nullptr, kKernelCopyBytes, 0);
        if (copied < 0 && errno == EINTR) continue;
        if (copied < 0 && (errno == ENOSPC || errno == EDQUOT || errno == EIO || errno == EFBIG))
            return false;
        if (copied == 0 && hasCopied) return true;
        // Some file systems cannot do it, and special ones such as /proc report 0 although there is content:
        // whatever is left is copied below.
        if (copied <= 0) break;
        hasCopied = true;
    }
    return CopyPieces(source, destination, [](std::string_view) {});
}

bool FileCopyContent(int source, int destination, KelString& sha256) {
    Sha256Digest digest;
    if (!CopyPieces(source, destination, [&digest](std::string_view piece) { digest.Add(piece); }))
        return false;
    sha256 = digest.Text();
    return true;
}
