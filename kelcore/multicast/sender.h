#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <vector>

#include "kel/types.h"
#include "kelcore/http/endpoint.h"
#include "kelcore/http/message.h"
#include "kelcore/multicast/datagram.h"

/// Where a transfer goes.
struct MulticastRoute {
    KelString group;                     ///< dotted IPv4 address
    std::uint16_t port = 0;              ///< UDP
    int ttl = 1;                         ///< routers that a datagram may pass, plus 1
    KelString key;                       ///< the secret that authenticates datagrams: the tree's password
    std::set<KelString> localAddresses;  ///< dotted, of this device; each is sent from
};

/// Sends files to a multicast group as kelcore/multicast/datagram.h describes. One thread at a time.
class MulticastSender {
  public:
    /// Makes one socket per local address. False, which is logged, when one cannot be set up; nothing is
    /// open then.
    bool Open(const MulticastRoute& route);

    /// Called with the bytes, IP headers included, that are about to be sent from each local address, 64 KiB
    /// at most. Sleeps as the rate demands; false stops the sending.
    using Pace = std::function<bool(std::size_t)>;

    /// Sends the file of `message` (its resource path and body file) once from every local address, reading
    /// it once. `blockSize`: bytes of the file in each datagram, at most 64,000; `blocks`: the numbers of
    /// the blocks to send (the first is 0), those beyond the file's end being left out; empty: all.
    /// 0 when everything was sent, 5 when `pace` stopped it or, which is logged, the file could not be read
    /// or the system did not take a datagram.
    unsigned int Send(const HttpFileMessage& message, std::uint32_t blockSize,
                      const std::set<std::uint32_t>& blocks, const Pace& pace);

  private:
    class Pass;

    MulticastRoute route_;
    std::vector<HttpEndpoint> endpoints_;  ///< one per local address
};
