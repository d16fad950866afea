#include "kelcore/security.h"

#include <pacparser.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <set>
#include <string_view>
#include <utility>

#include "kel/format.h"
#include "kel/mutex.h"
#include "kel/text.h"
#include "kelcore/agent.h"
#include "kelcore/keys/key_ring.h"
#include "kelcore/keys/transition.h"
#include "kelcore/tree_passwords.h"

namespace {

struct Switches {
    AgentSecuritySslContext ssl;
    AgentSecurityPacContext pac;
};

Switches& TheSwitches() {
    static Switches switches;
    return switches;
}

struct Keys {
    KelMutex mutex;
    AgentSecurityKeys keys KEL_GUARDED_BY(mutex);
    std::atomic<std::uint64_t> id = 0;
};

Keys& TheKeys() {
    static Keys keys;
    return keys;
}

/// Guards the script engine, which exists once per process.
KelMutex engineMutex;

int LogEngineError(const char* format, va_list arguments) {
    char text[512];
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    const KelString trimmed = Trim(text);
    if (!trimmed.empty()) CoreLog().Warning("Proxy script: %S\n", trimmed);
    return length;
}

/// The engine with a script loaded, for one question.
class Engine {
  public:
    explicit Engine(const KelString& script) KEL_REQUIRES(engineMutex) {
        static const bool addressSet = SetOwnAddress();
        static_cast<void>(addressSet);
        pacparser_set_error_printer(&LogEngineError);
        started_ = pacparser_init() != 0;
        loaded_ = started_ && pacparser_parse_pac_string(script.c_str()) != 0;
    }
    ~Engine() {
        if (started_) pacparser_cleanup();
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    bool IsLoaded() const { return loaded_; }

    bool Ask(const KelString& url, const KelString& host, KelString& answer) KEL_REQUIRES(engineMutex) {
        const char* text = pacparser_find_proxy(url.c_str(), host.c_str());
        if (text == nullptr) return false;
        answer = text;  // the engine owns the text
        return true;
    }

  private:
    // The answer of myIpAddress(). The engine never frees an address that it was given, so it is set once.
    static bool SetOwnAddress() {
        if (KelAgentGetAddress().empty()) return false;
        pacparser_setmyip(KelAgentGetAddress().c_str());
        return true;
    }

    bool started_ = false;
    bool loaded_ = false;
};

/// The engine puts both texts between apostrophes in a script.
bool IsHarmless(std::string_view text) {
    return text.find('\'') == std::string_view::npos && text.find('\\') == std::string_view::npos &&
           !HasControlCharacter(text);
}

/// Picks from an answer such as "SOCKS a:1; PROXY b:2; DIRECT" the first item that the HTTP client can use.
bool PickProxy(const KelString& answer, KelString& proxy) {
    for (const KelString& piece : SplitText(answer, ';')) {
        const KelString item = Trim(piece);
        if (IsEqualTo(item, "DIRECT", false)) {
            proxy.clear();
            return true;
        }
        const std::size_t blank = item.find_first_of(" \t");
        if (blank == KelString::npos) continue;
        const std::string_view kind = std::string_view(item).substr(0, blank);
        if (!IsEqualTo(kind, "PROXY", false) && !IsEqualTo(kind, "HTTP", false)) continue;
        proxy = Trim(std::string_view(item).substr(blank));
        return true;
    }
    return false;
}

}  // namespace

KelString PasswordProblem(const KelString& password) {
    constexpr std::size_t kFewestBytes = 12;
    constexpr std::size_t kFewestLetters = 5;
    if (password.size() < kFewestBytes)
        return KelFormat("the password has fewer than %lu characters and can be guessed", kFewestBytes);
    if (std::set<char>(password.begin(), password.end()).size() < kFewestLetters)
        return "the password repeats a few characters and can be guessed";
    return {};
}

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

void AgentSecuritySetKeys(AgentSecurityKeys keys) {
    Keys& the = TheKeys();
    const KelLock lock(the.mutex);
    the.id = keys ? keys->Id() : 0;
    the.keys = std::move(keys);
}

AgentSecurityKeys AgentSecurityGetKeys() {
    Keys& the = TheKeys();
    const KelLock lock(the.mutex);
    return the.keys;
}

std::uint64_t AgentSecurityKeysId() {
    return TheKeys().id;
}

KelVector<KelString> AgentSecurityGroupKeys() {
    const AgentSecurityKeys keys = AgentSecurityGetKeys();
    const KelPasswordPair passwords = TreePasswords().Get();
    KelVector<KelString> all;
    if (!keys || Transition().CallsWithPassword()) all = {passwords.former, passwords.current};
    if (keys) all.push_back(keys->Get().groupKey);
    std::erase(all, KelString());
    if (all.empty()) all.emplace_back();  // not enrolled yet: it authenticates nothing
    return all;
}

KelString AgentSecurityPacFindProxy(const AgentSecurityPacSettings& settings, const KelString& url,
                                    const KelString& host) {
    const KelString safeUrl = ReplaceAll(ReplaceAll(url, "'", "%27"), "\\", "%5C");
    if (!IsHarmless(safeUrl) || !IsHarmless(host)) {
        CoreLog().Warning("Proxy script: not asked for host %S, which holds an unsafe character.\n", host);
        return {};
    }
    KelString answer;
    {
        const KelLock lock(engineMutex);
        Engine engine(settings.script);
        if (!engine.IsLoaded() || !engine.Ask(safeUrl, host, answer)) {
            CoreLog().Error("Proxy script: no answer for host %S, connecting directly; check PacScript.\n",
                            host);
            return {};
        }
    }
    KelString proxy;
    if (!PickProxy(answer, proxy))
        CoreLog().Warning("Proxy script: no usable proxy in \"%S\" for host %S, connecting directly.\n",
                          answer, host);
    return proxy;
}
