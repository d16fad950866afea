#pragma once

#include "cli/options.h"
#include "cli/output.h"
#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

/// The agent that the command line talks to. One thread at a time.
class Remote {
  public:
    /// Takes address and credentials from the options: from the ini files beneath --root, whose own address
    /// the connection is then bound to, so that the agent takes the caller for a local one; or from --url,
    /// --user and --password-file.
    static KelResult<Remote> Open(const CommonOptions& options);

    /// Calls an action; the container carries arguments in and results out. 0, or the action's code, or one
    /// of kelcore/error_codes.h. Prints to stderr what went wrong. Waits as long for the answer as the
    /// options say, and at least `atLeastSeconds`.
    unsigned int Call(const KelString& action, KelContainer& container, int atLeastSeconds = 0) const;

    /// Where the agent is, without credentials.
    const KelString& Address() const { return address_; }

  private:
    Remote(KelString deviceUrl, KelString address, int timeoutSeconds)
        : deviceUrl_(std::move(deviceUrl)), address_(std::move(address)), timeoutSeconds_(timeoutSeconds) {}

    KelString deviceUrl_;  ///< with credentials
    KelString address_;
    int timeoutSeconds_;
};

/// The "host:port" of an agent's URL "http://HOST:PORT"; an error that names an unusable one.
KelResult<KelString> AddressOfUrl(const KelString& url);

/// The exit code for the result of a call.
int ExitCodeOf(unsigned int result);

/// Calls `action` and prints the containers under "Values" in its answer. An exit code.
int PrintActionList(const CommonOptions& common, const KelString& action, KelContainer arguments,
                    const KelVector<Column>& columns);

/// The first line of a file, as the password; an error when it is empty or the file cannot be read.
KelResult<KelString> ReadPasswordFile(const KelString& path);
