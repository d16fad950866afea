#pragma once

#include <cstddef>
#include <cstdint>

#include "kel/debug.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kel/unique_fd.h"
#include "kelcore/agent.h"
#include "kelcore/ini_settings.h"
#include "kelcore/security.h"

/// The agent's own configuration, from config/Agent.ini beneath its root folder.
struct AgentConfig {
    KelString root;              ///< ends with "/"
    KelString name;              ///< user name of the tree's HTTP requests
    KelString httpPassword;      ///< never empty
    KelString formerPassword;    ///< empty: only one
    std::int64_t formerEnd = 0;  ///< of that, seconds since the epoch; 0: when it is removed
    KelString address;           ///< own IPv4 address; empty: any
    KelDebugLevel logLevel = KelDebugLevel::Print;
    std::size_t logMaxBytes = 0;
    std::size_t logFiles = 0;
    KelVector<KelString> modules;  ///< in the order in which they are driven
    AgentSecurityKeys keys;        ///< null in a plain tree
    bool acceptPassword = false;   ///< a tree on its way to keys
    bool sslForce = false;
    AgentSecuritySslSettings ssl;
    bool pacForce = false;
    KelString pacScript;         ///< the text of the script
    KelVector<IniFault> faults;  ///< of Agent.ini, none of them vital; each names the file

    KelString ConfigDir() const { return root + "config/"; }
    KelString DataDir() const { return root + "data/"; }
    KelString LogFile() const { return root + "log/agent.log"; }
};

/// Reads the configuration beneath `root` (ends with "/"). The error names the file, the entry and what to
/// do: the file cannot be read, or others may read it or the key, the password or the name is missing, an
/// address, a number or a module name is unusable, a script cannot be read.
KelResult<AgentConfig> LoadAgentConfig(const KelString& root);

/// What is wrong with the configuration beneath `root` besides what LoadAgentConfig refuses: its faults,
/// modules that are missing from `modulesDir` or cannot be loaded, and
/// what the modules find in their ini files. Each names its file.
KelVector<IniFault> FindConfigFaults(const AgentConfig& config, const KelString& modulesDir);

/// Takes root folder, config/, data/ and log/ away from all but their owner, where others had access to them.
/// One line for the log for each that was changed, or could not be.
KelVector<KelString> CloseRoot(const AgentConfig& config);

/// Code of the error when another process holds the lock.
inline constexpr unsigned int kRootLocked = 2;

/// Takes the lock that allows only one agent on a root folder: the file data/agent.lock beneath `root` (ends
/// with "/"), created with its folder when missing. flock(2) is used, so that the kernel releases the lock
/// however the process ends. The file holds the process id, for people.
KelResult<UniqueFd> LockRoot(const KelString& root);
