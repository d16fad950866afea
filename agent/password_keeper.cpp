#include "agent/password_keeper.h"

#include <ctime>
#include <utility>

#include "agent/agent_actions.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/keys/transition.h"
#include "kelcore/tree_passwords.h"

namespace {

constexpr std::int64_t kDay = 86400;

KelString UntilText(const KelPasswordPair& passwords) {
    return passwords.formerEnd == 0 ? KelString() : ", until " + PasswordEndText(passwords.formerEnd);
}

unsigned int TakePassword(PasswordKeeper& keeper, KelContainer* arguments) {
    arguments->Clear();
    const KelStatus taken = keeper.Reload(std::time(nullptr));
    if (taken) return kKelOk;
    arguments->SetString("Message", taken.Error().message);
    return kKelErrorBadInput;
}

unsigned int GetPassword(KelContainer* arguments) {
    const KelPasswordPair passwords = TreePasswords().Get();
    KelContainer values;
    values.SetBool("HasFormer", !passwords.former.empty());
    if (passwords.formerEnd != 0) values.SetInt64("FormerEnd", passwords.formerEnd);
    std::uint32_t count = 0;
    for (const auto& [address, time] : TreePasswords().FormerCallers()) {
        KelContainer caller;
        caller.SetString("Address", address.ToText());
        caller.SetInt64("LastSeen", time);
        values.SetContainer("FormerCallers", std::move(caller), count++);
    }
    arguments->Clear();
    arguments->SetContainer("Values", std::move(values));
    return kKelOk;
}

}  // namespace

void PasswordKeeper::Begin(const AgentConfig& config, std::int64_t now) {
    const KelLock lock(mutex_);
    root_ = config.root;
    Apply(config, now);
}

KelStatus PasswordKeeper::Reload(std::int64_t now) {
    const KelLock lock(mutex_);
    const auto config = LoadAgentConfig(root_);
    if (!config) return config.Error();
    const KelPasswordPair before = TreePasswords().Get();
    const bool wasOn = Transition().CallsWithPassword();
    Apply(*config, now);
    const KelPasswordPair after = TreePasswords().Get();
    if (before.current != after.current) log_.Print("The tree has a new password\n");
    if (!before.former.empty() && after.former.empty())
        log_.Print("The former password of the tree is not accepted any more\n");
    if (wasOn && !Transition().CallsWithPassword())
        log_.Print("Members without keys are not accepted any more\n");
    return {};
}

void PasswordKeeper::Apply(const AgentConfig& config, std::int64_t now) {
    KelPasswordPair passwords{config.httpPassword, config.formerPassword, config.formerEnd};
    if (passwords.formerEnd != 0 && passwords.formerEnd <= now) passwords = {config.httpPassword};
    TreePasswords().Set(std::move(passwords));
    Transition().SetOn(config.acceptPassword);
    reminded_ = 0;
    Remind(now);
}

void PasswordKeeper::Step(std::int64_t now) {
    const KelLock lock(mutex_);
    const KelPasswordPair passwords = TreePasswords().Get();
    if (passwords.formerEnd == 0 || now < passwords.formerEnd) return Remind(now);
    TreePasswords().Set({passwords.current});
    log_.Print("The former password of the tree has ended, as Agent.ini says\n");
}

void PasswordKeeper::Remind(std::int64_t now) {
    const KelPasswordPair passwords = TreePasswords().Get();
    if (reminded_ != 0 && now - reminded_ < kDay) return;
    reminded_ = now;
    if (Transition().CallsWithPassword() && Transition().AcceptsPassword())
        log_.Warning(
            "Members without keys are accepted with the password; end that when all devices have keys: kel "
            "keys "
            "end-password\n");
    if (passwords.former.empty()) return;
    log_.Warning(
        "The former password of the tree is accepted, too%S; end it when all devices have the new one: kel "
        "password end\n",
        UntilText(passwords));
}

void RegisterPasswordActions(PasswordKeeper& keeper) {
    ActionDbRegisterAction(
        {.signature = "AgentTakePassword",
         .purpose = "Has the passwords of a plain tree in Agent.ini in force from now on.",
         .results = "1 Agent.ini cannot be used",
         .callers = KelCallers::Local,
         .changes = true},
        [&keeper](KelContainer* container) { return TakePassword(keeper, container); }, kAgentHandle);
    ActionDbRegisterAction(
        {.signature = "AgentGetPassword",
         .purpose = "Says whether the former password of a plain tree is accepted, and who still uses it.",
         .outputs = "container Values {bool HasFormer, int64 FormerEnd? (seconds since the epoch), container "
                    "FormerCallers[]? {string Address, int64 LastSeen (seconds since the epoch)}}",
         .callers = KelCallers::Operator},
        GetPassword, kAgentHandle);
}
