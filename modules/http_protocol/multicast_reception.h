#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>
#include <vector>

#include "kel/checksum.h"
#include "kel/debug.h"
#include "kel/result.h"
#include "kelcore/multicast/datagram.h"
#include "kelcore/net/udp_socket.h"
#include "modules/http_protocol/alias_table.h"
#include "modules/http_protocol/block_map.h"
#include "modules/http_protocol/unfinished_file.h"

namespace kelhttp {

/// A file that is to come by multicast.
struct MulticastOrder {
    MulticastTransfer transfer;
    std::uint32_t blockSize = 0;
    KelString localPath;
    KelString checksum;  ///< MD5 of the content, lower-case hexadecimal

    bool operator==(const MulticastOrder&) const = default;
    /// The number of blocks, the last of which may be shorter.
    std::uint64_t BlockCount() const { return (transfer.fileSize + blockSize - 1) / blockSize; }
};

/// What became of the datagrams that reached a reception.
struct MulticastCounts {
    std::uint64_t accepted = 0;
    std::uint64_t repeated = 0;   ///< of blocks that are there
    std::uint64_t foreign = 0;    ///< of another file
    std::uint64_t malformed = 0;  ///< no such message, or cut off
    std::uint64_t misplaced = 0;  ///< does not hold exactly one block
    std::uint64_t forged = 0;     ///< its code is not that of this transfer and content
    std::uint64_t lost = 0;       ///< dropped by the kernel because the socket's buffer was full
};

/// The reception of one file. States:
///
///   Listening -> Verifying    the last missing block has arrived
///   Verifying -> Completed    the checksum is right, the file in place, the event triggered
///   Verifying -> Mismatched   the checksum is wrong, the content dropped
///   Mismatched -> Listening   Restart
///   any       -> Failed       the disk, a subscriber of the event, or Abandon
///
/// Open, then Take on the receiving thread; Finish once after Take has asked for it, on a thread that may
/// wait for the disk; the rest on any thread.
class MulticastReception {
  public:
    using Clock = std::chrono::steady_clock;
    enum class State : unsigned char { Listening, Verifying, Completed, Mismatched, Failed };

    /// `secret`: the tree's password.
    MulticastReception(MulticastOrder order, AliasMatch place, const KelVector<KelString>& secrets,
                       const KelDebug& log);

    /// Creates the file and joins the group through the interface with the address `local`. An error, which
    /// names the file or the group, leaves the object unusable.
    KelStatus Open(IpAddress local);

    /// Starts again after a mismatch; without effect in other states.
    KelStatus Restart();

    /// Leaves the group: nothing more is needed from it. For the receiving thread, like Take.
    void Leave();

    /// Takes the datagrams that were read from the socket, in their order; `isBehind`: more are waiting
    /// there. True when this has completed the file, so that Finish is to be called.
    bool Take(std::span<const std::string_view> datagrams, std::uint32_t kernelDrops, bool isBehind);

    /// Verifies the content, puts the file in place and triggers the event HttpProtocolCallbackPut. `stopped`
    /// is asked while the content is read; when it answers true, nothing more is done.
    void Finish(const std::function<bool()>& stopped);

    /// Ends it, unless it is completed, without touching the file, which goes with the object: a verification
    /// under way puts nothing in place any more.
    void Abandon();

    /// What the sender asks for.
    struct Report {
        State state = State::Listening;
        bool hasHeard = false;  ///< a datagram of this transfer has arrived
        std::vector<BlockMap::Range> missing;
    };
    /// Waits for the end of a verification until `deadline`. `limit`: of ranges, see BlockMap::Missing.
    Report GetReport(std::size_t limit, Clock::time_point deadline);

    State GetState() const;
    MulticastCounts Counts() const;
    /// When a datagram of this transfer arrived last; before the first, when the reception began.
    Clock::time_point LastHeard() const;
    /// Logs what has arrived.
    void LogEnd(const char* reason) const;

    const MulticastOrder& Order() const { return order_; }
    int Socket() const { return socket_.Get(); }

  private:
    bool Examine(std::string_view bytes);
    bool HasOwnCode(const MulticastDatagram& datagram);
    bool WriteAccepted();
    bool WriteRun(std::size_t first, std::size_t count);
    void HashAccepted();
    bool Verify(const std::function<bool()>& stopped);
    const char* PutInPlace();
    void Fail(const char* what);
    void SetState(State state);

    /// A block that has been examined and is to be written.
    struct Accepted {
        std::uint32_t block;
        std::string_view body;
    };

    const MulticastOrder order_;
    const KelDebug& log_;
    const KelString encodedPath_;
    KelVector<MulticastKey> keys_;  ///< for the receiving thread; the one that fitted last comes first
    UdpSocket socket_;
    IpAddress local_;                 ///< of the interface that the group is joined through
    std::vector<Accepted> accepted_;  ///< for the receiving thread
    std::uint32_t kernelDrops_ = 0;   ///< for the receiving thread: as counted last

    /// Guards what follows. The receiving thread holds it while it examines and writes what one read has
    /// given, Finish only to change the state: while the state is Verifying, the file belongs to Finish.
    mutable std::mutex mutex_;
    std::condition_variable changed_;  ///< the state has
    State state_ = State::Listening;
    UnfinishedFile file_;
    BlockMap blocks_;
    Md5Digest digest_;                ///< of the blocks before hashedBlocks_
    std::uint32_t hashedBlocks_ = 0;  ///< how many of the first blocks were hashed when they came
    MulticastCounts counts_;
    Clock::time_point lastHeard_ = Clock::now();
};

}  // namespace kelhttp
