#pragma once

#include <cstdint>
#include <string>

#include "cli/options.h"
#include "cli/output.h"
#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

/// The device that the command line talks to: an agent, or one of the tree through the master. One thread at
/// a time.
class Remote {
  public:
    /// With --root over the agent's own socket, for which the caller is the device's operator; where there is
    /// none, as while the agent does not run, with address and credentials from the ini files. With --url
    /// another agent: https with the keys of a device of the tree, http with --user and --password-file.
    static KelResult<Remote> Open(const CommonOptions& options);

    /// Calls an action; the container carries arguments in and results out. Returns 0, the action's code, or
    /// one of kelcore/error_codes.h, and prints what went wrong to stderr. Waits for the answer as long as
    /// --timeout says, but at least `atLeastSeconds`, for actions that take long.
    unsigned int Call(const KelString& action, KelContainer& container, int atLeastSeconds = 0) const;

    /// The same without a message.
    unsigned int CallQuietly(const KelString& action, KelContainer& container, int atLeastSeconds = 0) const;

    /// Where the agent is, without credentials, or the name of the device that is called through it.
    const KelString& Address() const { return device_.empty() ? address_ : device_; }

    /// The same agent, for calls of another device through it; empty: for its own calls. May be used beside
    /// this one by another thread.
    Remote For(const KelString& device) const;

  private:
    Remote(KelString user, KelString password, KelString address, KelString guid, KelString socketFolder,
           KelString device, int timeoutSeconds)
        : user_(std::move(user)),
          password_(std::move(password)),
          address_(std::move(address)),
          guid_(std::move(guid)),
          socketFolder_(std::move(socketFolder)),
          device_(std::move(device)),
          timeoutSeconds_(timeoutSeconds) {}

    unsigned int CallAgent(const KelString& action, KelContainer& container, int seconds) const;
    unsigned int CallThroughMaster(const KelString& action, KelContainer& container, int seconds) const;
    /// What went wrong, for a person.
    KelString Explain(unsigned int result, const KelString& action, const KelContainer& answer) const;
    /// Where the master is, as far as the devices above can be asked: each names its parent.
    KelString PlaceOfMaster() const;

    KelString user_;
    KelString password_;
    KelString address_;
    KelString guid_;          ///< of the device that has to answer, in a tree with keys; empty otherwise
    KelString socketFolder_;  ///< of the agent's own socket; empty: it is called by its address
    KelString device_;  ///< GUID or name of the one that is called through the agent; empty: the agent itself
    int timeoutSeconds_;
};

/// The value of --url.
struct AgentUrl {
    bool isSecure = false;
    KelString host;
    std::uint16_t port = 0;
    KelString guid;  ///< of the device that has to answer; empty: any of the tree

    KelString Address() const { return host + ":" + std::to_string(port); }
};

/// "http://HOST:PORT" or "https://HOST:PORT[/GUID]"; an error that names the URL when it has another form.
KelResult<AgentUrl> ParseAgentUrl(const KelString& url);

/// The "host:port" of the parent that a device names in its answer to RelayGetValues; empty when it has none.
KelString ParentAddress(const KelContainer& relay);

/// The exit code for the result of a call.
int ExitCodeOf(unsigned int result);

/// Calls `action` and prints the containers under "Values" in its answer. An exit code.
int PrintActionList(const CommonOptions& common, const KelString& action, KelContainer arguments,
                    const KelVector<Column>& columns);

/// The password: the first line of a file. An error when it is empty or the file cannot be read.
KelResult<KelString> ReadPasswordFile(const KelString& path);
