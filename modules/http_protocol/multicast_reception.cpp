#include "modules/http_protocol/multicast_reception.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "kel/checksum.h"
#include "kelcore/callback_db.h"
#include "kelcore/http/url.h"
#include "kelcore/metrics/transfer_counters.h"
#include "modules/http_protocol/datagram_reader.h"

namespace kelhttp {
namespace {

/// Bridges the time in which the receiving thread writes or gets no processor: at 1 Gbit/s about 0.2 s.
constexpr int kReceiveBufferBytes = 32 << 20;
constexpr std::size_t kMaxPieces = 256;  ///< of one write

bool IsOwnCode(std::string_view code, const MulticastKey::Code& expected) {
    return EqualInConstantTime(code, {expected.data(), expected.size()});
}

}  // namespace

MulticastReception::MulticastReception(MulticastOrder order, AliasMatch place,
                                       const KelVector<KelString>& secrets, const KelDebug& log)
    : order_(std::move(order)),
      log_(log),
      encodedPath_(UrlEncodePath(order_.transfer.urlPath)),
      file_(std::move(place)),
      blocks_(static_cast<std::uint32_t>(order_.BlockCount())) {
    for (const KelString& secret : secrets)
        keys_.emplace_back(secret, order_.transfer);
    if (blocks_.IsComplete()) state_ = State::Verifying;  // an empty file
}

KelStatus MulticastReception::Open(IpAddress local) {
    if (!file_.OpenFolder()) return SystemError("The folder cannot be opened of", order_.localPath);
    if (file_.IsKeptForAgent()) return KelError{kKelFailure, order_.localPath + " is kept for the agent"};
    if (file_.Create(order_.transfer.fileSize) != nullptr)
        return SystemError("There is no room for", order_.localPath);
    local_ = local;
    const auto group = IpAddress::Parse(order_.transfer.group);
    // Several agents on one machine may listen to the same group.
    if (!group || !socket_.SetOption(SOL_SOCKET, SO_REUSEADDR, 1) ||
        !socket_.Bind(*group, order_.transfer.port) || !socket_.Join(*group, local))
        return SystemError("The multicast group cannot be joined:", order_.transfer.group);
    const int granted = socket_.GrowReceiveBuffer(kReceiveBufferBytes);
    DatagramReader::Prepare(socket_.Get());
    log_.Print("Multicast %S:%u: waiting for %S, %gu bytes; receive buffer of %d bytes.\n",
               order_.transfer.group, unsigned{order_.transfer.port}, order_.transfer.urlPath,
               order_.transfer.fileSize, granted);
    return {};
}

KelStatus MulticastReception::Restart() {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Mismatched) return {};
    if (!socket_.Join(*IpAddress::Parse(order_.transfer.group), local_))
        return SystemError("The multicast group cannot be joined:", order_.transfer.group);
    if (file_.Create(order_.transfer.fileSize) != nullptr)
        return SystemError("There is no room for", order_.localPath);
    blocks_.Clear();
    digest_ = {};
    hashedBlocks_ = 0;
    counts_ = {};
    lastHeard_ = Clock::now();
    state_ = State::Listening;
    return {};
}

void MulticastReception::Leave() {
    socket_.Leave(*IpAddress::Parse(order_.transfer.group), local_);
}

bool MulticastReception::Take(std::span<const std::string_view> datagrams, std::uint32_t kernelDrops,
                              bool isBehind) {
    const std::lock_guard lock(mutex_);
    if (kernelDrops != 0) counts_.lost += kernelDrops - std::exchange(kernelDrops_, kernelDrops);
    if (state_ != State::Listening) return false;
    accepted_.clear();
    bool hasHeard = false;
    for (const std::string_view datagram : datagrams)
        hasHeard = Examine(datagram) || hasHeard;
    if (hasHeard) lastHeard_ = Clock::now();
    if (!WriteAccepted()) return false;
    if (!isBehind) HashAccepted();
    if (!blocks_.IsComplete()) return false;
    SetState(State::Verifying);
    return true;
}

/// True for a datagram of this transfer, be it new or repeated. The cheap checks come first: what other
/// senders send must not cost the computation of a code.
bool MulticastReception::Examine(std::string_view bytes) {
    const auto datagram = ParseMulticastDatagram(bytes);
    if (!datagram) {
        ++counts_.malformed;
        return false;
    }
    if (datagram->fileSize != order_.transfer.fileSize || datagram->path != encodedPath_) {
        ++counts_.foreign;
        return false;
    }
    const std::uint64_t left = order_.transfer.fileSize - datagram->offset;
    if (datagram->offset % order_.blockSize != 0 ||
        datagram->body.size() != std::min<std::uint64_t>(order_.blockSize, left)) {
        ++counts_.misplaced;
        return false;
    }
    const auto block = static_cast<std::uint32_t>(datagram->offset / order_.blockSize);
    if (blocks_.Has(block)) {
        ++counts_.repeated;
        return true;
    }
    if (!HasOwnCode(*datagram)) {
        ++counts_.forged;
        return false;
    }
    ++counts_.accepted;
    blocks_.Add(block);
    accepted_.push_back({block, datagram->body});
    return true;
}

/// While two secrets are in force, the sender may use either.
bool MulticastReception::HasOwnCode(const MulticastDatagram& datagram) {
    const auto fits = [&datagram](const MulticastKey& key) {
        return IsOwnCode(datagram.code, key.CodeOf(datagram.offset, datagram.body));
    };
    const auto found = std::ranges::find_if(keys_, fits);
    if (found == keys_.end()) return false;
    if (found != keys_.begin()) std::iter_swap(found, keys_.begin());
    return true;
}

/// Blocks that follow each other are written together.
bool MulticastReception::WriteAccepted() {
    for (std::size_t first = 0; first < accepted_.size();) {
        std::size_t count = 1;
        while (count < kMaxPieces && first + count < accepted_.size() &&
               accepted_[first + count].block == accepted_[first].block + count)
            ++count;
        if (!WriteRun(first, count)) {
            Fail("write");
            return false;
        }
        first += count;
    }
    return true;
}

bool MulticastReception::WriteRun(std::size_t first, std::size_t count) {
    std::array<iovec, kMaxPieces> pieces;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string_view body = accepted_[first + i].body;
        pieces[i] = {const_cast<char*>(body.data()), body.size()};
    }
    std::span<iovec> left(pieces.data(), count);
    auto offset = static_cast<off_t>(std::uint64_t{accepted_[first].block} * order_.blockSize);
    while (!left.empty()) {
        const ssize_t written = ::pwritev(file_.Get(), left.data(), static_cast<int>(left.size()), offset);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        offset += written;
        KelTransfers(KelDirection::Down, KelFlow::In, KelTransport::Multicast)
            .bytes.Add(static_cast<std::uint64_t>(written));
        auto done = static_cast<std::size_t>(written);
        while (!left.empty() && done >= left[0].iov_len) {
            done -= left[0].iov_len;
            left = left.subspan(1);
        }
        if (done != 0) left[0] = {static_cast<char*>(left[0].iov_base) + done, left[0].iov_len - done};
    }
    return true;
}

/// Without losses, the checksum is known with the last block. From the first block on that was lost, or for
/// which there was no time, the file is read at the end.
void MulticastReception::HashAccepted() {
    for (const Accepted& accepted : accepted_) {
        if (accepted.block != hashedBlocks_) continue;
        digest_.Add(accepted.body);
        ++hashedBlocks_;
    }
}

void MulticastReception::Finish(const std::function<bool()>& stopped) {
    if (!Verify(stopped)) return;
    if (const char* const failed = PutInPlace()) {
        const std::lock_guard lock(mutex_);
        Fail(failed);
        return;
    }
    KelContainer arguments;
    arguments.SetString("URL", order_.transfer.urlPath);
    arguments.SetString("MulticastAddress", order_.transfer.group);
    arguments.SetString("LocalPath", order_.localPath);
    KelContainer results;
    const unsigned int answer = CallbackDbTrigger("HttpProtocolCallbackPut", arguments, results);
    if (answer != 0)
        log_.Warning("Multicast %S:%u: %S is in place, but a subscriber of the event answered %u.\n",
                     order_.transfer.group, unsigned{order_.transfer.port}, order_.localPath, answer);
    KelTransfers(KelDirection::Down, KelFlow::In, KelTransport::Multicast).files.Add();
    LogEnd("complete");
    const std::lock_guard lock(mutex_);
    if (state_ == State::Verifying) SetState(answer == 0 ? State::Completed : State::Failed);
}

bool MulticastReception::Verify(const std::function<bool()>& stopped) {
    const bool isRead =
        digest_.AddFile(file_.Get(), std::uint64_t{hashedBlocks_} * order_.blockSize,
                        [this, &stopped] { return stopped() || GetState() != State::Verifying; });
    if (!isRead && errno == ECANCELED) return false;
    const std::lock_guard lock(mutex_);
    if (state_ != State::Verifying) return false;
    if (!isRead) {
        Fail("read");
        return false;
    }
    const KelString digest = digest_.Text();
    if (digest == order_.checksum) return true;
    log_.Warning("Multicast %S:%u: %S has arrived with the checksum %S instead of %S; it is dropped.\n",
                 order_.transfer.group, unsigned{order_.transfer.port}, order_.transfer.urlPath, digest,
                 order_.checksum);
    file_.Drop();
    blocks_.Clear();
    SetState(State::Mismatched);
    return false;
}

/// Null, or what could not be done, with errno set.
const char* MulticastReception::PutInPlace() {
    if (::fsync(file_.Get()) != 0) return "sync";
    if (!file_.PutInPlace()) return "put in place";
    if (!file_.SyncFolder()) return "sync the folder of";
    file_.Close();
    return nullptr;
}

void MulticastReception::Fail(const char* what) {
    log_.Error("Multicast %S:%u: cannot %s %S: %s. The reception ends.\n", order_.transfer.group,
               unsigned{order_.transfer.port}, what, order_.localPath, std::strerror(errno));
    file_.Drop();
    SetState(State::Failed);
}

void MulticastReception::SetState(State state) {
    state_ = state;
    changed_.notify_all();
}

void MulticastReception::Abandon() {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Completed) SetState(State::Failed);
}

MulticastReception::Report MulticastReception::GetReport(std::size_t limit, Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, deadline, [this] { return state_ != State::Verifying; });
    return {state_, counts_.accepted + counts_.repeated != 0, blocks_.Missing(limit)};
}

MulticastReception::State MulticastReception::GetState() const {
    const std::lock_guard lock(mutex_);
    return state_;
}

MulticastCounts MulticastReception::Counts() const {
    const std::lock_guard lock(mutex_);
    return counts_;
}

MulticastReception::Clock::time_point MulticastReception::LastHeard() const {
    const std::lock_guard lock(mutex_);
    return lastHeard_;
}

void MulticastReception::LogEnd(const char* reason) const {
    const std::lock_guard lock(mutex_);
    log_.Print(
        "Multicast %S:%u: %s; %u of %u blocks of %S are there. Datagrams: %gu accepted, %gu repeated, "
        "%gu of other files, %gu malformed, %gu misplaced, %gu forged, %gu lost for want of buffer.\n",
        order_.transfer.group, unsigned{order_.transfer.port}, reason, blocks_.Count(), blocks_.Total(),
        order_.transfer.urlPath, counts_.accepted, counts_.repeated, counts_.foreign, counts_.malformed,
        counts_.misplaced, counts_.forged, counts_.lost);
}

}  // namespace kelhttp
