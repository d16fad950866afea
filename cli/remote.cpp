#include "cli/remote.h"

#include <algorithm>
#include <cstdio>

#include "cli/output.h"
#include "kel/debug.h"
#include "kel/file.h"
#include "kel/ini_file.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/url.h"

namespace {

constexpr std::uint64_t kMaxPasswordFileBytes = 4096;
constexpr const char* kAnyAddress = "0.0.0.0";

struct Target {
    KelString address;  ///< "host:port"
    KelString ownAddress;
    KelString user;
    KelString password;
};

KelResult<KelString> ReadIni(IniFile& ini, const KelString& path, const KelString& section,
                             const KelString& key) {
    KelString value;
    if (!FileExists(path) || !ini.Open(path)) return KelError{kKelErrorBadInput, path + ": cannot be read"};
    ini.GetEntryValue(section, key, value, {});
    if (value.empty()) return KelError{kKelErrorBadInput, path + ": " + key + " is missing"};
    return value;
}

KelResult<Target> FromRoot(const KelString& root) {
    Target target;
    IniFile agent;
    auto password = ReadIni(agent, root + "/config/Agent.ini", "Agent", "HttpPassword");
    if (!password) return password.Error();
    target.password = *password;
    agent.GetEntryValue("Agent", "Name", target.user, {});
    agent.GetEntryValue("Agent", "Address", target.ownAddress, {});
    IniFile http;
    const KelString path = root + "/config/HttpProtocol.ini";
    auto port = ReadIni(http, path, "HttpProtocol", "Port");
    if (!port) return port.Error();
    if (*port == "0")
        return KelError{kKelErrorBadInput,
                        path + ": Port is 0 (any free port); address the agent with --url instead"};
    KelString address;
    http.GetEntryValue("HttpProtocol", "Address", address, target.ownAddress);
    if (address.empty()) address = target.ownAddress;
    // A server on all addresses is reached over loopback.
    if (address.empty() || address == kAnyAddress) address = "127.0.0.1";
    target.address = address + ":" + *port;
    return target;
}

KelResult<Target> FromUrl(const CommonOptions& options) {
    auto address = AddressOfUrl(options.url);
    if (!address) return address.Error();
    auto password = ReadPasswordFile(options.passwordFile);
    if (!password) return password.Error();
    return Target{*address, {}, options.user, *password};
}

/// What went wrong, for a person; `message` is what the action said about it, often nothing.
KelString ResultText(unsigned int result, const KelString& message) {
    switch (result) {
        case kKelErrorUnreachable:
            return "no answer; is the agent running there?";
        case kKelErrorCredentials:
            return "the agent refused the credentials";
        case kKelErrorUnknownAction:
            return "the agent has no such action";
        case kKelErrorBadInput:
            return message.empty() ? "an input is missing or unusable; the agent's log names it" : message;
        case kKelErrorNotAvailable:
            return message.empty() ? "not available on this device" : message;
        case kKelErrorInternal:
            return message.empty() ? "internal error; see the agent's log" : message;
        case kKelErrorBadAnswer:
            return "the answer is not that of an agent; is this the right address?";
        case kKelErrorGuidScheme:
            return "the GUID belongs to another tree";
        default:
            return "the action failed with result " + std::to_string(result) +
                   (message.empty() ? "" : ": " + message);
    }
}

}  // namespace

KelResult<KelString> AddressOfUrl(const KelString& url) {
    UrlInet parts;
    if (!UrlParseInet(url, parts) || parts.scheme != "http" || parts.host.empty())
        return KelError{kKelErrorBadInput, "'" + url + "' is not of the form http://HOST:PORT"};
    return parts.host + ":" + std::to_string(parts.port);
}

KelResult<KelString> ReadPasswordFile(const KelString& path) {
    auto text = FileReadText(path, kMaxPasswordFileBytes);
    if (!text) return text.Error();
    KelString line = text->substr(0, text->find_first_of("\r\n"));
    if (line.empty())
        return KelError{kKelErrorBadInput, path + ": the first line, which holds the password, is empty"};
    return line;
}

KelResult<Remote> Remote::Open(const CommonOptions& options) {
    auto target = options.root.empty() ? FromUrl(options) : FromRoot(options.root);
    if (!target) return target.Error();
    KelAgentSettings settings;
    settings.name = target->user;
    settings.httpPassword = target->password;
    settings.address = target->ownAddress;
    // The library logs nothing: what went wrong is printed once, by Call.
    settings.debugContext = MakeDebugContext({}, 0, 0, false, KelDebugLevel::None);
    KelAgentConfigure(std::move(settings));
    return Remote(UrlForAgent(target->user, target->password, target->address), target->address,
                  options.timeoutSeconds);
}

unsigned int Remote::Call(const KelString& action, KelContainer& container, int atLeastSeconds) const {
    const unsigned int result = ActionDbInvokeContainer("kel", deviceUrl_, action, container, 0, -1,
                                                        std::max(timeoutSeconds_, atLeastSeconds), nullptr);
    if (result == kKelOk) return result;
    const KelString text = Printable(ResultText(result, container.GetString("Message")));
    std::fprintf(stderr, "kel: %s on %s: %s\n", action.c_str(), address_.c_str(), text.c_str());
    return result;
}

int ExitCodeOf(unsigned int result) {
    if (result == kKelOk) return kExitDone;
    return result == kKelErrorUnreachable ? kExitUnreachable : kExitFailed;
}

int PrintActionList(const CommonOptions& common, const KelString& action, KelContainer arguments,
                    const KelVector<Column>& columns) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    if (const unsigned int result = remote->Call(action, arguments); result != kKelOk)
        return ExitCodeOf(result);
    PrintList(arguments, common.json, columns);
    return kExitDone;
}
