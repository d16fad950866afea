#include "kelcore/agent.h"

#include <utility>

#include "kelcore/tree_passwords.h"

namespace {

KelAgentSettings& Settings() {
    static KelAgentSettings settings;
    return settings;
}

}  // namespace

void KelAgentConfigure(KelAgentSettings settings) {
    CoreLog().SetContext(settings.debugContext);
    TreePasswords().Set({settings.httpPassword});
    Settings() = std::move(settings);
}

const KelString& KelAgentGetConfigDir() {
    return Settings().configDir;
}
const KelString& KelAgentGetDataDir() {
    return Settings().dataDir;
}
const KelString& KelAgentGetName() {
    return Settings().name;
}
KelString KelAgentGetHttpPassword() {
    return TreePasswords().Get().current;
}
const KelString& KelAgentGetAddress() {
    return Settings().address;
}
std::shared_ptr<KelDebugContext> KelAgentGetDebugContext() {
    return Settings().debugContext;
}

const KelString& KelAgentGetRunDir() {
    return Settings().runDir;
}

unsigned int KelAgentGetProgramUmask() {
    return Settings().programUmask;
}

const KelString& KelAgentGetSchemaDir() {
    return Settings().schemaDir.empty() ? Settings().configDir : Settings().schemaDir;
}

KelDebug& CoreLog() {
    // Made at its first use: other static objects may log before main.
    static KelDebug log("KelCore", "Agent services");
    return log;
}
