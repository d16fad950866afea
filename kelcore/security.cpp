#include "kelcore/security.h"

#include <utility>

namespace {

struct Switches {
    AgentSecuritySslContext ssl;
    AgentSecurityPacContext pac;
};

Switches& TheSwitches() {
    static Switches switches;
    return switches;
}

}  // namespace

void AgentSecurityConfigure(AgentSecuritySslContext ssl, AgentSecurityPacContext pac) {
    TheSwitches() = {std::move(ssl), std::move(pac)};
}

bool AgentSecuritySslForceSecCli() {
    return TheSwitches().ssl != nullptr;
}
AgentSecuritySslContext AgentSecuritySslCliCtxAcquire() {
    return TheSwitches().ssl;
}
bool AgentSecurityPacForceSecCli() {
    return TheSwitches().pac != nullptr;
}
AgentSecurityPacContext AgentSecurityPacShrCtxAcquire() {
    return TheSwitches().pac;
}
