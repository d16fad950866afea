#include "cli/remote.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cli/output.h"
#include "kel/debug.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/ini_file.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/action_db_remote.h"
#include "kelcore/agent.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/client.h"
#include "kelcore/http/url.h"
#include "kelcore/keys/key_folder.h"
#include "kelcore/local_socket.h"
#include "kelcore/security.h"

namespace {

constexpr std::uint64_t kMaxPasswordFileBytes = 4096;
constexpr const char* kAnyAddress = "0.0.0.0";

struct Target {
    KelString address;       ///< "host:port"
    KelString socketFolder;  ///< of the agent's own socket, where that is there
    KelString ownAddress;
    KelString user;
    KelString password;
    AgentSecurityKeys keys = {};  ///< with which it is called, in a tree with keys
    KelString guid = {};          ///< of the device that has to answer; empty: any of the tree
};

KelResult<KelString> ReadIni(IniFile& ini, const KelString& path, const KelString& section,
                             const KelString& key) {
    KelString value;
    if (!FileExists(path) || !ini.Open(path)) return KelError{kKelErrorBadInput, path + ": cannot be read"};
    ini.GetEntryValue(section, key, value, {});
    if (value.empty()) return KelError{kKelErrorBadInput, path + ": " + key + " is missing"};
    return value;
}

KelStatus ReadAddress(const KelString& root, Target& target) {
    IniFile agent;
    auto password = ReadIni(agent, root + "/config/Agent.ini", "Agent", "HttpPassword");
    if (!password) return password.Error();
    target.password = *password;
    agent.GetEntryValue("Agent", "Name", target.user, {});
    agent.GetEntryValue("Agent", "Address", target.ownAddress, {});
    bool hasKeys = false;
    agent.GetEntryValue("Security", "Keys", hasKeys, false);
    if (hasKeys) {
        auto keys = LoadKeyRing(root + "/data/");
        if (!keys) return keys.Error();
        target.keys = std::move(*keys);
        target.guid = target.keys->Get().device.guid;
    }
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
    return {};
}

/// Over the socket, neither port nor password are needed.
KelResult<Target> FromRoot(const KelString& root) {
    Target target;
    const KelString folder = root + "/" + kAgentSocketFolder;
    if (FileExists(folder + "/" + kAgentSocketName)) target.socketFolder = folder;
    const KelStatus read = ReadAddress(root, target);
    if (read) return target;
    if (target.socketFolder.empty()) return read.Error();
    target.address = folder + "/" + kAgentSocketName;
    return target;
}

KelResult<Target> FromUrl(const CommonOptions& options) {
    auto place = ParseAgentUrl(options.url);
    if (!place) return place.Error();
    auto password = ReadPasswordFile(options.passwordFile);
    if (!password) return password.Error();
    return Target{place->Address(), {}, {}, options.user, *password};
}

/// Another agent, which is called with the keys of the device with this root folder.
KelResult<Target> FromKeys(const CommonOptions& options) {
    const auto place = ParseAgentUrl(options.url);
    if (!place) return place.Error();
    const KelString& root = options.keysRoot;
    const KelString ini = root + "/config/Agent.ini";
    if (access(ini.c_str(), R_OK) != 0)
        return KelError{kKelErrorBadInput,
                        KelFormat("%S: %s; https:// needs the keys of a device: name its root folder with "
                                  "--root, and run this as the user of its agent or as root",
                                  ini, std::strerror(errno))};
    Target target;
    IniFile agent;
    bool hasKeys = false;
    agent.Open(ini);
    agent.GetEntryValue("Security", "Keys", hasKeys, false);
    if (!hasKeys)
        return KelError{kKelErrorBadInput,
                        KelFormat("%S is the root folder of a device of a plain tree, without "
                                  "keys; call agents of such a tree with http://, --user "
                                  "and --password-file",
                                  root)};
    agent.GetEntryValue("Agent", "Address", target.ownAddress, {});
    auto keys = LoadKeyRing(root + "/data/");
    if (!keys) return KelError{kKelErrorBadInput, "The keys cannot be used: " + keys.Error().message};
    if (!(*keys)->IsEnrolled())
        return KelError{kKelErrorBadInput, root + ": this device has no certificate of a tree yet"};
    target.keys = std::move(*keys);
    target.address = place->Address();
    target.guid = place->guid;
    return target;
}

KelResult<Target> FindTarget(const CommonOptions& options) {
    if (!options.root.empty()) return FromRoot(options.root);
    return options.keysRoot.empty() ? FromUrl(options) : FromKeys(options);
}

/// Who runs the command, for the audit of the agent: the user before sudo, if any.
KelString OperatorName() {
    if (const char* before = std::getenv("SUDO_USER"); before != nullptr && *before != 0) return before;
    const passwd* const user = getpwuid(getuid());
    return user != nullptr ? KelString(user->pw_name) : std::to_string(getuid());
}

/// What a call has failed by that says more than that there was no answer; empty when there is nothing.
KelString ConnectionProblem(const HttpClient& client) {
    if (!client.GetRefusal().empty()) return client.GetRefusal();
    const bool hasKeys = AgentSecurityGetKeys() != nullptr;
    if (hasKeys && client.GetResult() == kHttpSecurity)
        return client.GetPeer().problem.empty()
                   ? "what answers there has no TLS (" + client.GetErrorText() +
                         "); agents of a plain tree are called with http://, --user and --password-file"
                   : client.GetErrorText();
    if (!hasKeys && client.GetResult() != kHttpCompleted && client.WasClosed())
        return "the connection was closed without an answer, as by an agent of a tree with keys, which takes "
               "TLS only: call it with https:// on a device that belongs to the tree";
    return {};
}

/// The actions of the console, which runs on the master only, begin with this.
constexpr std::string_view kMasterActions = "Console";

/// A tree is not deeper than this; ends a walk up through devices that name each other as parents.
constexpr int kMaxLevels = 32;
constexpr int kParentSeconds = 5;
constexpr int kConnectSeconds = 10;
/// How much longer than a device of the tree the master may take to answer.
constexpr int kMasterSeconds = 5;

}  // namespace

KelResult<AgentUrl> ParseAgentUrl(const KelString& url) {
    UrlInet parts;
    const bool isUrl = UrlParseInet(url, parts) && !parts.host.empty();
    const bool isSecure = isUrl && parts.scheme == "https";
    const KelString guid = parts.path.size() > 1 ? parts.path.substr(1) : KelString();
    const bool hasGuid = !guid.empty() && isSecure;
    if (!isUrl || (hasGuid && !IsGuid(guid)))
        return KelError{kKelErrorBadInput,
                        "'" + url + "' is not of the form http://HOST:PORT or https://HOST:PORT[/GUID]"};
    return AgentUrl{isSecure, parts.host, parts.port, hasGuid ? guid : KelString()};
}

KelString ParentAddress(const KelContainer& relay) {
    if (relay.GetString("Role") == "master" || relay.GetString("ParentName").empty()) return {};
    const KelString ip = relay.GetString("ParentIPAddress");
    return (ip.empty() ? relay.GetString("ParentName") : ip) + ":" + relay.GetString("ParentPort");
}

KelResult<KelString> ReadPasswordFile(const KelString& path) {
    if (FileIsOpenToOthers(path))
        return KelError{kKelErrorBadInput, path + ": others may open this file; chmod 600 it"};
    auto text = FileReadText(path, kMaxPasswordFileBytes);
    if (!text) return text.Error();
    KelString line = text->substr(0, text->find_first_of("\r\n"));
    if (line.empty())
        return KelError{kKelErrorBadInput, path + ": the first line, which holds the password, is empty"};
    return line;
}

KelResult<Remote> Remote::Open(const CommonOptions& options) {
    auto target = FindTarget(options);
    if (!target) return target.Error();
    KelAgentSettings settings;
    settings.name = target->user;
    settings.httpPassword = target->password;
    settings.address = target->ownAddress;
    // The library logs nothing: what went wrong is printed once, by Call.
    settings.debugContext = MakeDebugContext({}, 0, 0, false, KelDebugLevel::None);
    KelAgentConfigure(std::move(settings));
    AgentSecuritySetKeys(target->keys);
    return Remote(target->user, target->password, target->address, target->guid, target->socketFolder,
                  options.device, options.timeoutSeconds);
}

Remote Remote::For(const KelString& device) const {
    Remote other = *this;
    other.device_ = device;
    return other;
}

KelString Remote::PlaceOfMaster() const {
    KelString asked = address_;
    KelString role;
    for (int level = 0; level < kMaxLevels; ++level) {
        KelContainer answer;
        const unsigned int result =
            level == 0
                ? CallAgent("RelayGetValues", answer, kParentSeconds)
                : ActionDbInvokeContainer("kel", UrlForAgent(user_, password_, asked), "RelayGetValues",
                                          answer, 0, kParentSeconds, kParentSeconds, nullptr);
        if (result != kKelOk) break;
        const KelContainer& relay = answer.GetContainer("Values");
        if (level == 0) role = relay.GetString("Role");
        const KelString parent = ParentAddress(relay);
        if (parent.empty() && level > 0 && relay.GetString("Role") == "master")
            return "this device is a " + role + "; the master is " + asked;
        if (parent.empty()) break;
        asked = parent;
    }
    if (role.empty() || role == "master") return "this device has no console";
    return "this device is a " + role +
           (asked == address_ ? " without a parent" : "; the master is above " + asked);
}

KelString Remote::Explain(unsigned int result, const KelString& action, const KelContainer& answer) const {
    const KelString message = answer.GetString("Message");
    if (!device_.empty() && !message.empty()) return message;
    switch (result) {
        case kKelErrorUnreachable:
            if (!message.empty()) return message;
            return "no answer from " + address_ + "; is the agent running there?";
        case kKelErrorCredentials:
            if (!message.empty()) return message;
            return "the agent at " + address_ + " refused the credentials";
        case kKelErrorUnknownAction:
            if (action == "ConsolePublish") return "publishing is done on the master; " + PlaceOfMaster();
            if (action.starts_with(kMasterActions)) return "only the master knows this; " + PlaceOfMaster();
            return "the agent at " + address_ + " has no action '" + action + "'";
        case kKelErrorBadAnswer:
            return "the answer from " + address_ + " is not that of an agent; is this the right address?";
        default:
            break;
    }
    if (!message.empty()) return message;
    switch (result) {
        case kKelErrorBadInput:
            return "an input of " + action + " is missing or unusable; the agent's log names it";
        case kKelErrorNotAvailable:
            return action + " is not available on this device now";
        case kKelErrorInternal:
            return action + " ended with an internal error; see the agent's log";
        case kKelErrorGuidScheme:
            return "the GUID belongs to another tree";
        default:
            return action + " failed with result " + std::to_string(result) + "; see the agent's log";
    }
}

unsigned int Remote::CallAgent(const KelString& action, KelContainer& container, int seconds) const {
    if (!socketFolder_.empty())
        return ActionDbInvokeOnSocket(OperatorName(), socketFolder_, action, container, seconds);
    UrlInet url;
    if (!UrlParseInet("http://" + address_, url)) return kKelErrorUnreachable;
    HttpClient client(kConnectSeconds, kConnectSeconds + seconds);
    client.SetServer(url.host, url.port);
    client.SetAuthentification(user_, password_);
    client.EnableKeys(AgentSecurityGetKeys());
    client.ExpectDevice(guid_);
    const unsigned int result =
        ActionDbCallThrough(client, OperatorName(), action, action + " on " + address_, container);
    if (const KelString problem = ConnectionProblem(client); !problem.empty())
        container.SetString("Message", address_ + ": " + problem);
    return result;
}

unsigned int Remote::CallThroughMaster(const KelString& action, KelContainer& container, int seconds) const {
    KelContainer call;
    call.SetString("Device", device_);
    call.SetString("Action", action);
    call.SetContainer("Arguments", container);
    call.SetInt32("Seconds", seconds);
    unsigned int result = CallAgent("ConsoleCallDevice", call, seconds + kMasterSeconds);
    container.Clear();
    if (result == kKelErrorUnknownAction)
        container.SetString("Message", "--device is for the master; " + PlaceOfMaster());
    else if (result == kKelErrorUnreachable && !call.Has("Message"))
        container.SetString("Message", "no answer from " + address_ + "; is the agent running there?");
    else if (result != kKelOk)
        container.SetString("Message", call.GetString("Message"));
    if (result != kKelOk) return result;
    container = call.GetContainer("Answer");
    result = static_cast<unsigned int>(call.GetInt64("Result"));
    if (result == kKelErrorUnknownAction && action.starts_with(kMasterActions))
        container.SetString("Message", "only the master knows this; leave out --device");
    return result;
}

unsigned int Remote::CallQuietly(const KelString& action, KelContainer& container, int atLeastSeconds) const {
    const int seconds = std::max(timeoutSeconds_, atLeastSeconds);
    return device_.empty() ? CallAgent(action, container, seconds)
                           : CallThroughMaster(action, container, seconds);
}

unsigned int Remote::Call(const KelString& action, KelContainer& container, int atLeastSeconds) const {
    const unsigned int result = CallQuietly(action, container, atLeastSeconds);
    if (result != kKelOk) Complain(Explain(result, action, container));
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
