#pragma once

#include <cstdint>
#include <memory>

#include "kel/types.h"

/// TLS settings of outgoing connections: certificate files in PEM form (RFC 7468), empty for the system's
/// defaults.
struct AgentSecuritySslSettings {
    KelString caFile;           ///< authorities that servers are checked against
    KelString certificateFile;  ///< own certificate, may be empty
    KelString keyFile;
};
using AgentSecuritySslContext = std::shared_ptr<const AgentSecuritySslSettings>;

/// Proxy auto-configuration: a script whose function FindProxyForURL answers the proxy of a URL.
struct AgentSecurityPacSettings {
    KelString script;
};
using AgentSecurityPacContext = std::shared_ptr<const AgentSecurityPacSettings>;

/// The keys of a device in a tree with keys; see kelcore/keys/key_ring.h.
class KelKeyRing;
using AgentSecurityKeys = std::shared_ptr<const KelKeyRing>;

/// What is wrong with a password for a tree; empty when nothing is. A digest of it that is heard on the way
/// can be tried against guesses without limit, so it has to be long.
KelString PasswordProblem(const KelString& password);

/// Sets the switches from the agent's configuration; an empty context switches the feature off. While no
/// other thread runs.
void AgentSecurityConfigure(AgentSecuritySslContext ssl, AgentSecurityPacContext pac);

// Queries, from any thread. HttpClient::EnableAgentSecurity applies all of them to a client.
bool AgentSecuritySslForceSecCli();  ///< outgoing connections must use TLS
AgentSecuritySslContext AgentSecuritySslCliCtxAcquire();
bool AgentSecurityPacForceSecCli();  ///< outgoing connections ask the PAC script for their proxy
AgentSecurityPacContext AgentSecurityPacShrCtxAcquire();

/// Makes this a device of a tree with keys: every connection of devices uses TLS with certificates on both
/// sides from then on. Null: a plain tree. From any thread, when a certificate, the list of revoked ones or
/// the parent has changed.
void AgentSecuritySetKeys(AgentSecurityKeys keys);
/// Null in a plain tree. From any thread.
AgentSecurityKeys AgentSecurityGetKeys();
/// The KelKeyRing::Id of these, 0 without; without locking, for those who only want to know whether they have
/// changed.
std::uint64_t AgentSecurityKeysId();

/// What the devices of the tree know and others do not: the password, or with keys what the enrolment has
/// given (empty before). Authenticates multicast datagrams. The first is the one to send with, which most
/// devices know: the former password while there are two. From any thread.
KelVector<KelString> AgentSecurityGroupKeys();

/// Runs the script for `url` (host `host`): the first answer that can be used as "host:port", empty for a
/// direct connection. Any thread; scripts run one at a time.
KelString AgentSecurityPacFindProxy(const AgentSecurityPacSettings& settings, const KelString& url,
                                    const KelString& host);
