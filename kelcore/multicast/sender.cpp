#include "kelcore/multicast/sender.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "kel/unique_fd.h"
#include "kelcore/agent.h"
#include "kelcore/metrics/transfer_counters.h"

namespace {

constexpr unsigned int kSent = 0;
constexpr unsigned int kFailed = 5;
constexpr std::size_t kBurstBytes = std::size_t{64} << 10;  ///< at most between two calls of Pace
constexpr std::uint32_t kMaxBlockBytes = 64000;
constexpr unsigned int kConnectSeconds = 20;
constexpr int kSendBufferBytes = 1 << 20;

std::optional<UdpSocket> Connect(const MulticastRoute& route, IpAddress group, const KelString& localText) {
    const auto local = IpAddress::Parse(localText);
    UdpSocket socket;
    // Routers may fragment large datagrams: nothing comes back from a group that would say that they are too
    // large.
    const bool isReady = local && socket.Bind(*local, 0) && socket.SendThrough(*local) &&
                         socket.SetOption(IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DONT) &&
                         socket.SetOption(SOL_SOCKET, SO_SNDBUF, kSendBufferBytes) &&
                         socket.Connect(group, route.port, kConnectSeconds) &&
                         socket.SetOption(IPPROTO_IP, IP_MULTICAST_TTL, route.ttl);
    if (isReady) return socket;
    CoreLog().Error("Cannot send from %S to the multicast group %S:%u: %s\n", localText, route.group,
                    unsigned{route.port}, std::strerror(local ? errno : EADDRNOTAVAIL));
    return std::nullopt;
}

}  // namespace

/// One pass over a file: reads the blocks, collects a burst of messages, sends it from every endpoint.
class MulticastSender::Pass {
  public:
    Pass(MulticastSender& sender, const HttpFileMessage& message, std::uint32_t blockSize, const Pace& pace)
        : sender_(sender), path_(message.GetBodyFile()), blockSize_(blockSize), pace_(pace) {
        file_.Reset(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat info {};
        if (!file_ || ::fstat(file_.Get(), &info) != 0) return;
        fileSize_ = static_cast<std::uint64_t>(info.st_size);
        const MulticastRoute& route = sender.route_;
        heads_.emplace(route.key,
                       MulticastTransfer{route.group, route.port, message.GetResourcePath(), fileSize_});
        Measure();
    }

    bool IsReady() const { return heads_.has_value(); }
    std::uint64_t BlockCount() const { return (fileSize_ + blockSize_ - 1) / blockSize_; }

    /// Sends `count` blocks that follow each other.
    bool SendRun(std::uint64_t first, std::uint64_t count) {
        while (count > 0) {
            const std::uint64_t now = std::min<std::uint64_t>(count, burstBlocks_ - messages_.size());
            if (!Collect(first, now)) return LogFailure("read");
            first += now;
            count -= now;
            if (messages_.size() == burstBlocks_ && !Flush()) return false;
        }
        return true;
    }

    /// Sends what has been collected.
    bool Flush() {
        if (messages_.empty()) return true;
        std::size_t bytes = 0;
        for (const HttpWireMessage& message : messages_)
            bytes += sender_.endpoints_[0].WireBytes(message.Size());
        if (!pace_(bytes)) return false;
        for (HttpEndpoint& endpoint : sender_.endpoints_)
            if (!endpoint.SendMessages(messages_)) return LogFailure("send");
        CountSent();
        messages_.clear();
        return true;
    }

  private:
    void CountSent() const {
        std::size_t content = 0;
        for (const HttpWireMessage& message : messages_)
            content += message.body.size();
        KelTransfers(KelDirection::Down, KelFlow::Out, KelTransport::Multicast)
            .bytes.Add(content * sender_.endpoints_.size());
    }

    /// How many blocks make a burst, and the room for them.
    void Measure() {
        if (fileSize_ == 0) return;
        const std::size_t length = std::min<std::uint64_t>(blockSize_, fileSize_);
        const KelString sample(length, '\0');
        KelString head;
        heads_->Write(fileSize_ - length, sample, head);
        burstBlocks_ =
            std::max<std::size_t>(kBurstBytes / sender_.endpoints_[0].WireBytes(head.size() + length), 1);
        messages_.reserve(burstBlocks_);
        headTexts_.resize(burstBlocks_);
        content_.resize(burstBlocks_ * length);
    }

    bool Collect(std::uint64_t first, std::uint64_t count) {
        std::uint64_t offset = first * blockSize_;
        const std::size_t length = std::min<std::uint64_t>(count * blockSize_, fileSize_ - offset);
        char* const begin = content_.data() + messages_.size() * blockSize_;
        if (!Read(offset, begin, length)) return false;
        for (std::string_view rest(begin, length); !rest.empty();) {
            const std::string_view body = rest.substr(0, blockSize_);
            KelString& head = headTexts_[messages_.size()];
            heads_->Write(offset, body, head);
            messages_.push_back({head, body});
            rest.remove_prefix(body.size());
            offset += body.size();
        }
        return true;
    }

    bool Read(std::uint64_t offset, char* bytes, std::size_t count) const {
        while (count > 0) {
            const ssize_t got = ::pread(file_.Get(), bytes, count, static_cast<off_t>(offset));
            if (got < 0 && errno == EINTR) continue;
            if (got == 0) errno = ENODATA;  // the file was cut meanwhile
            if (got <= 0) return false;
            bytes += got;
            offset += static_cast<std::uint64_t>(got);
            count -= static_cast<std::size_t>(got);
        }
        return true;
    }

    bool LogFailure(const char* what) const {
        CoreLog().Error("Multicast of %S to %S:%u: cannot %s: %s\n", path_, sender_.route_.group,
                        unsigned{sender_.route_.port}, what, std::strerror(errno));
        return false;
    }

    MulticastSender& sender_;
    const KelString path_;
    const std::uint32_t blockSize_;
    const Pace& pace_;
    UniqueFd file_;
    std::uint64_t fileSize_ = 0;
    std::optional<MulticastHeads> heads_;
    std::size_t burstBlocks_ = 1;
    std::vector<HttpWireMessage> messages_;  ///< of the present burst; their parts are in the next two
    std::vector<KelString> headTexts_;
    KelString content_;
};

bool MulticastSender::Open(const MulticastRoute& route) {
    route_ = route;
    endpoints_.clear();
    const auto group = IpAddress::Parse(route.group);
    if (!group || !IN_MULTICAST(group->Value()) || route.localAddresses.empty()) {
        CoreLog().Error("'%S' is no multicast group, or there is no address to send to it from\n",
                        route.group);
        return false;
    }
    for (const KelString& local : route.localAddresses) {
        std::optional<UdpSocket> socket = Connect(route, *group, local);
        if (!socket) {
            endpoints_.clear();
            return false;
        }
        endpoints_.emplace_back(std::move(*socket));
    }
    return true;
}

unsigned int MulticastSender::Send(const HttpFileMessage& message, std::uint32_t blockSize,
                                   const std::set<std::uint32_t>& blocks, const Pace& pace) {
    if (endpoints_.empty() || blockSize == 0 || blockSize > kMaxBlockBytes) return kFailed;
    Pass pass(*this, message, blockSize, pace);
    if (!pass.IsReady()) {
        CoreLog().Error("Cannot open %S for multicast: %s\n", message.GetBodyFile(), std::strerror(errno));
        return kFailed;
    }
    if (blocks.empty()) return pass.SendRun(0, pass.BlockCount()) && pass.Flush() ? kSent : kFailed;
    for (auto next = blocks.begin(); next != blocks.end() && *next < pass.BlockCount();) {
        // Neighbours are read together.
        const std::uint64_t first = *next;
        std::uint64_t count = 0;
        while (next != blocks.end() && *next == first + count && *next < pass.BlockCount()) {
            ++next;
            ++count;
        }
        if (!pass.SendRun(first, count)) return kFailed;
    }
    return pass.Flush() ? kSent : kFailed;
}
