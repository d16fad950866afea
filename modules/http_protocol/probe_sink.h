#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <memory>

#include "modules/http_protocol/io_loop.h"
#include "modules/http_protocol/peer_table.h"

namespace kelhttp {

/// One connection of the bandwidth probe port: everything received is discarded, so that the peer can measure
/// the bandwidth of the link. Ends when the peer closes it, or after 30 seconds.
class ProbeSink final : public LoopMember, public std::enable_shared_from_this<ProbeSink> {
  public:
    ProbeSink(IoLoop& loop, boost::asio::ip::tcp::socket socket, PeerTable::Place place);
    ~ProbeSink() override;

    void Start();
    void OnTick(Clock::time_point now) override;
    void Abort() override;

  private:
    void Wait();

    IoLoop& loop_;
    boost::asio::ip::tcp::socket socket_;
    PeerTable::Place place_;  ///< until it is closed
    const Clock::time_point started_;
    bool closed_ = false;
};

}  // namespace kelhttp
