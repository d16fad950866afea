#pragma once

#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <utility>

#include "kel/mutex.h"
#include "kelcore/security.h"

namespace kelhttp {

/// The TLS settings of a server in a tree with keys. They follow the keys of the device, which change while
/// it runs. Any thread.
class KeyedTls {
  public:
    /// The keys in force and a context made of them. Clients may present a certificate; whatever it is, the
    /// handshake goes on, and what it proves is for TlsChannel to find out. Throws std::runtime_error when
    /// OpenSSL does not take the keys.
    std::pair<AgentSecurityKeys, std::shared_ptr<boost::asio::ssl::context>> Current();

  private:
    KelMutex mutex_;
    AgentSecurityKeys keys_ KEL_GUARDED_BY(mutex_);
    std::shared_ptr<boost::asio::ssl::context> context_ KEL_GUARDED_BY(mutex_);
};

}  // namespace kelhttp
