#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <memory>

#include "modules/http_protocol/io_loop.h"
#include "modules/http_protocol/peer_table.h"

namespace kelhttp {

/// One connection of the bandwidth probe port: everything received is thrown away, so that the peer can
/// measure how fast the link takes its bytes. Ends with the peer or after half a minute.
class ProbeSink final : public LoopMember, public std::enable_shared_from_this<ProbeSink> {
  public:
    /// The peer has been admitted to the table; the sink releases it.
    ProbeSink(PeerTable& peers, IoLoop& loop, boost::asio::ip::tcp::socket socket, IpAddress peer);
    ~ProbeSink() override;

    void Start();
    void OnTick(Clock::time_point now) override;
    void Abort() override;

  private:
    void Wait();

    PeerTable& peers_;
    IoLoop& loop_;
    boost::asio::ip::tcp::socket socket_;
    const IpAddress peer_;
    const Clock::time_point started_;
    bool closed_ = false;
};

}  // namespace kelhttp
