#pragma once

#include <memory>

#include "kel/debug.h"
#include "kel/types.h"

/// What the agent process provides to its modules. Set once, before any module is loaded.
struct KelAgentSettings {
    KelString configDir;     ///< ends with "/"
    KelString dataDir;       ///< ends with "/"
    KelString name;          ///< the tree's agent name: user name of every HTTP request
    KelString httpPassword;  ///< the tree's HTTP password at the start; never empty
    KelString address;  ///< own IPv4 address in dotted form; outgoing connections are bound to it. Empty: any
    std::shared_ptr<KelDebugContext> debugContext;
    unsigned int programUmask = 022;  ///< of the programs that modules run: what the agent was started with
    /// Ends with "/": the ini files that came with the modules, whose Sql sections describe their databases.
    /// Empty: configDir.
    KelString schemaDir = {};
    KelString runDir = {};  ///< of the agent's own socket; empty: there is none
};

/// Sets what the queries below answer. For the agent process and for tests, while no other thread runs.
void KelAgentConfigure(KelAgentSettings settings);

// Queries; may be called from any thread once the agent is configured.
const KelString& KelAgentGetConfigDir();  ///< ends with "/"
const KelString& KelAgentGetDataDir();    ///< ends with "/"
const KelString& KelAgentGetName();
KelString KelAgentGetHttpPassword();  ///< the current one; see kelcore/tree_passwords.h
const KelString& KelAgentGetAddress();
std::shared_ptr<KelDebugContext> KelAgentGetDebugContext();
unsigned int KelAgentGetProgramUmask();
const KelString& KelAgentGetSchemaDir();  ///< ends with "/"
const KelString& KelAgentGetRunDir();

/// The log of the agent's services ("KelCore"); its lines go where KelAgentConfigure says. Any thread.
KelDebug& CoreLog();
