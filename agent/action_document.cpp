#include "agent/action_document.h"

#include <algorithm>
#include <map>

#include "agent/agent_actions.h"
#include "agent/module_loader.h"
#include "agent/password_keeper.h"
#include "kel/directory.h"
#include "kelcore/action_db.h"
#include "kelcore/metrics/metrics.h"

namespace {

constexpr const char* kHead =
    "# Actions\n"
    "\n"
    "Every action of every module: what it is for, what it takes and gives, and who may call it. `kel call "
    "--list`\n"
    "shows the same for a running agent. [protocol.md](protocol.md) says how an action is called over HTTP. "
    "This file is\n"
    "written by `./dev docs`, from the descriptions with which the modules register their actions.\n"
    "\n"
    "Values are written as `type Name`. `?`: the value may be absent. `[]`: the name holds several values. "
    "`{}`: the\n"
    "values in a container. `*`: any name. The result 0 is success; the outputs are those of a success. "
    "Where another\n"
    "result needs an explanation, the answer has a text `Message`. Results from 17 on are shared by all "
    "actions: 17 not\n"
    "available now, 18 an internal error, which the agent's log explains.\n"
    "\n"
    "Callers: *local*, the modules of the device itself and its operator over the agent's own socket, always "
    "may; *parent*,\n"
    "the device's parent; *child*, the devices below it; *operator*, the operator of the tree, through the "
    "master; *stranger*,\n"
    "in a tree with keys, a device without a certificate. Who knows the password of a plain tree, or has a "
    "certificate of a\n"
    "tree with keys, is a *child* everywhere, and may also call what an *operator* may, unless it is marked "
    "as a change.\n"
    "Any other call gets the result 17 (FileStoreWithdrawFile: 1) with a `Message`, before anything else "
    "is looked at;\n"
    "[security.md](security.md) says who is who.\n";

KelString Quoted(const KelString& text) {
    return text.empty() ? KelString("nothing") : "`" + text + "`";
}

KelString Entry(const KelContainer& action) {
    KelString text = "\n### " + action.GetString("Name") + "\n\n" + action.GetString("Purpose") + "\n\n";
    text += "- takes: " + Quoted(DescribedValuesText(action, "Inputs")) + "\n";
    text += "- gives: " + Quoted(DescribedValuesText(action, "Outputs")) + "\n";
    if (const KelString results = action.GetString("Results"); !results.empty())
        text += "- results: " + results + "\n";
    text += "- callers: " + action.GetString("Callers") + "\n";
    if (action.GetBool("Changes")) text += "- a change, recorded in the audit\n";
    return text;
}

}  // namespace

KelResult<KelString> ActionsInMarkdown(const KelString& modulesDir) {
    KelVector<LoadedModule> modules;
    KelVector<KelString> names;
    for (const KelString& file : DirList(modulesDir))
        if (file.ends_with(".so")) names.push_back(file.substr(0, file.size() - 3));
    std::sort(names.begin(), names.end());
    for (const KelString& name : names) {
        auto module = LoadedModule::Load(modulesDir, name);
        if (!module) return module.Error();
        modules.push_back(std::move(*module));
    }
    const KelDebug log("Agent", "Agent");
    PasswordKeeper passwords(log);
    RegisterAgentActions({}, passwords);
    for (LoadedModule& module : modules)
        module.Register();
    std::map<KelString, KelString> byModule;
    for (const KelContainer& action : ActionDbListActions())
        byModule[action.GetString("Module")] += Entry(action);
    for (LoadedModule& module : modules) {
        module.Run(KelModuleOperation::Unregister);
        ActionDbUnregisterAll(module.Name().c_str());
        KelMetricsUnregisterAll(module.Name().c_str());
    }
    ActionDbUnregisterAll(kAgentHandle);
    KelString text = kHead;
    for (const auto& [module, entries] : byModule)
        text += "\n## " + module + "\n" + entries;
    return text;
}
