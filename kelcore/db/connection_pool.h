#pragma once

#include <memory>

#include "kel/debug.h"
#include "kel/types.h"
#include "kelcore/db/connection.h"

/// Describes a database and opens connections to it. Set up on one thread before use.
class DBConnectionPool {
  public:
    /// The log of the connections made afterwards; must outlive them. Required.
    void SetDebug(KelDebug& log) { log_ = &log; }

    /// With true, CreateConnection waits up to 30 s for the file's present connection to be closed, so that
    /// threads use it in turn; with false (the default) it refuses at once.
    void SetSerialConnections(bool serial) { serial_ = serial; }

    /// `kind`: "SQLITE32" is the only one. `path`: the database file. `server`, `user`, `password` and `port`
    /// have no meaning for it.
    void SetDatabase(const KelString& kind, const KelString& server, const KelString& path,
                     const KelString& user, const KelString& password, unsigned int port);

    /// Opens the database file, creating it (mode 0600) when it is missing. A database whose structure is
    /// damaged is moved aside to "<file>.damaged-<time>" and a new one made, with an error in the log. Null
    /// on failure (logged). A file has one connection in this process at a time; a second one is refused.
    std::unique_ptr<DBConnection> CreateConnection();

  private:
    KelDebug* log_ = nullptr;
    bool serial_ = false;
    KelString kind_;
    KelString path_;
};
