#include "cli/doctor.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <set>
#include <utility>

#include "cli/output.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/ini_file.h"
#include "kel/ip_address.h"
#include "kel/text.h"
#include "kel/unique_fd.h"
#include "kelcore/clock_difference.h"
#include "kelcore/http/client.h"
#include "kelcore/keys/key_folder.h"
#include "kelcore/security.h"
#include "kelcore/tree_passwords.h"
#include "kelcore/version.h"

namespace {

using State = Finding::State;

constexpr std::uint64_t kLeastFree = std::uint64_t{64} << 20;  // what the file store keeps free by default
constexpr std::uint64_t kLittleFree = std::uint64_t{1} << 30;
constexpr int kConnectSeconds = 5;
constexpr std::size_t kMostNamed = 3;
constexpr const char* kSetClock =
    "set the clock if it is wrong (timedatectl set-ntp true); the agent goes on by itself";

KelString IniValue(const KelString& root, const char* module, const char* section, const char* key) {
    IniFile ini;
    KelString value;
    ini.Open(root + "/config/" + module + ".ini");
    ini.GetEntryValue(section, key, value, {});
    return value;
}

/// Null in a plain tree.
KelResult<AgentSecurityKeys> KeysOf(const KelString& root) {
    IniFile ini;
    bool hasKeys = false;
    ini.Open(root + "/config/Agent.ini");
    ini.GetEntryValue("Security", "Keys", hasKeys, false);
    return hasKeys ? LoadKeyRing(root + "/data/") : KelResult<AgentSecurityKeys>(AgentSecurityKeys());
}

KelString Named(const KelVector<KelString>& paths) {
    KelString text;
    for (std::size_t i = 0; i < std::min(paths.size(), kMostNamed); ++i)
        text += (i == 0 ? "" : ", ") + paths[i];
    return paths.size() <= kMostNamed ? text : text + KelFormat(" and %gu more", paths.size() - kMostNamed);
}

struct RootFiles {
    KelVector<KelString> ofOthers;  ///< not owned by the user of the root folder
    KelVector<KelString> damaged;   ///< databases that were moved aside
};

RootFiles WalkRoot(const KelString& root, uid_t owner) {
    namespace fs = std::filesystem;
    RootFiles found;
    std::error_code failure;
    auto entry =
        fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied, failure);
    for (; !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
        struct stat status {};
        const KelString path = entry->path().string();
        if (lstat(path.c_str(), &status) == 0 && status.st_uid != owner) found.ofOthers.push_back(path);
        if (path.find(".sqlite.damaged-") != KelString::npos && !path.ends_with("-wal") &&
            !path.ends_with("-shm"))
            found.damaged.push_back(path);
    }
    return found;
}

Finding ExamineModes(const KelString& root, const struct stat& folder, const RootFiles& files) {
    const KelString secret = root + "/config/Agent.ini";
    if (FileIsOpenToOthers(secret))
        return {"modes", State::Problem, secret + " holds the tree's password, but others may open it",
                "chmod 600 " + secret};
    if (!files.ofOthers.empty())
        return {"modes", State::Problem, "not owned by the user of " + root + ": " + Named(files.ofOthers),
                KelFormat("chown -R %u:%u %S", static_cast<unsigned int>(folder.st_uid),
                          static_cast<unsigned int>(folder.st_gid), root)};
    if ((folder.st_mode & 077) != 0)
        return {"modes", State::Warning, root + " is open to other users; the agent closes it when it starts",
                "chmod 700 " + root};
    return {"modes", State::Ok, "the files belong to the user of " + root + ", and to no other", {}};
}

/// Nothing while there is one password, or none that counts.
KelVector<Finding> ExaminePassword(const KelString& root) {
    if (ParseIniFlag(IniValue(root, "Agent", "Security", "AcceptPassword")).value_or(false) &&
        ParseIniFlag(IniValue(root, "Agent", "Security", "Keys")).value_or(false))
        return {
            {"password", State::Warning,
             "members without keys are accepted with the password: this device has the protection of a plain "
             "tree only",
             "when all devices have keys: kel keys end-password"}};
    if (IniValue(root, "Agent", "Agent", "HttpFormerPassword").empty()) return {};
    const KelString day = IniValue(root, "Agent", "Agent", "HttpFormerPasswordEnd");
    const auto end = ParsePasswordEnd(day);
    const bool hasEnded = end && *end <= std::time(nullptr);
    return {{"password", State::Warning,
             hasEnded ? "the former password of the tree has ended on " + day + ", but is still in Agent.ini"
                      : "the former password of the tree is accepted, too" +
                            (day.empty() ? KelString() : ", until " + day),
             "when all devices have the new one: kel password end"}};
}

Finding ExamineSpace(const KelString& root) {
    struct statvfs disk {};
    if (statvfs((root + "/data").c_str(), &disk) != 0)
        return {"space", State::Problem, root + "/data: " + std::strerror(errno),
                "restore the folder from a backup, or make the root folder anew with 'kel init'"};
    const std::uint64_t free = disk.f_bavail * disk.f_frsize;
    const KelString text = SizeText(static_cast<std::int64_t>(free)) + " free on the disk of " + root;
    if (disk.f_files != 0 && disk.f_favail == 0)
        return {"space", State::Problem, "no inodes are left on the disk of " + root, "remove small files"};
    if (free >= kLittleFree) return {"space", State::Ok, text, {}};
    return {"space", free < kLeastFree ? State::Problem : State::Warning, text,
            "make room: nothing is received below 64 MiB (FreeSpaceReserve)"};
}

/// Whether the server could listen: empty when it could.
KelString WhyNotListening(const KelString& address, std::uint16_t port) {
    const auto ip = IpAddress::Parse(address.empty() ? "0.0.0.0" : address);
    if (!ip) return address + " is no address";
    const UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(ip->Value());
    name.sin_port = htons(port);
    return bind(socket.Get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0
               ? KelString()
               : KelString(std::strerror(errno));
}

Finding ExaminePort(const KelString& root) {
    KelString address = IniValue(root, "HttpProtocol", "HttpProtocol", "Address");
    if (address.empty()) address = IniValue(root, "Agent", "Agent", "Address");
    const KelString port = IniValue(root, "HttpProtocol", "HttpProtocol", "Port");
    const KelString place = address + ":" + port;
    const auto number = ParseUint64(port);
    if (!number || *number > 65535)
        return {"port", State::Problem, "Port in HttpProtocol.ini is '" + port + "'", "set a port"};
    const KelString problem = WhyNotListening(address, static_cast<std::uint16_t>(*number));
    if (problem.empty()) return {"port", State::Ok, place + " is free", {}};
    return {
        "port", State::Problem, place + " cannot be listened on: " + problem,
        "end what uses the port ('ss -ltnp'), or correct Address in Agent.ini or Port in HttpProtocol.ini"};
}

Finding ClockFinding(std::int64_t ahead) {
    const KelString text =
        KelFormat("this clock is %gd s %s the parent's", std::abs(ahead), ahead > 0 ? "behind" : "ahead of");
    if (std::abs(ahead) <= kClocksDiffer) return {"clock", State::Ok, text, {}};
    return {
        "clock", State::Warning, text,
        "set the clock (timedatectl set-ntp true): windows, ages and the order of publications follow it"};
}

/// By the parent's answer to any request, with credentials or without.
std::optional<std::int64_t> SecondsAhead(const HttpMessage& answer) {
    const auto time = TimeOfHttpDate(answer.GetHeader("date"));
    return time ? std::optional(*time - std::time(nullptr)) : std::nullopt;
}

const char* const kReachAdvice =
    "check that the agent there runs, its address and port (ParentName, ParentPort in Relay.ini), and "
    "firewalls "
    "between the two devices";

/// Whether anything answers where the parent should be; in a tree with keys, the parent itself.
KelVector<Finding> ExaminePlaceOfParent(const KelString& root) {
    KelVector<Finding> findings;
    const KelString parent = IniValue(root, "Relay", "Relay", "ParentName");
    const auto port = ParseUint64(IniValue(root, "Relay", "Relay", "ParentPort"));
    if (parent.empty() || !port || *port == 0 || *port > 65535) return findings;
    const auto address = IpAddress::Resolve(parent);
    if (!address) {
        findings.push_back({"name", State::Problem, "the parent's name " + parent + " is not known",
                            "correct ParentName in Relay.ini, the DNS or /etc/hosts"});
        return findings;
    }
    const auto keys = KeysOf(root);
    if (!keys) {
        findings.push_back({"keys", State::Problem, keys.Error().message,
                            "restore data/Keys from a backup, or make the root folder anew with 'kel init'"});
        return findings;
    }
    if (*keys && !(*keys)->IsEnrolled()) {
        findings.push_back(
            {"keys", State::Warning, "this device does not belong to a tree yet",
             "start the agent, which joins with its invitation; its log says what is in the way"});
        return findings;
    }
    HttpClient client(kConnectSeconds, kConnectSeconds);
    client.EnableKeys(*keys);
    client.SetServer(address->ToText(), static_cast<std::uint16_t>(*port));
    HttpMessage request, answer;
    request.SetMethod(HttpMethod::Head);
    const KelString place = parent + ":" + std::to_string(*port);
    if (client.SendAndRecv(request, answer) == kHttpCompleted) {
        if (client.GetRefusal().empty())
            findings.push_back({"parent", State::Ok, place + " answers", {}});
        else
            findings.push_back({"parent", State::Problem, place + ": " + client.GetRefusal(), kReachAdvice});
        if (const auto ahead = SecondsAhead(answer)) findings.push_back(ClockFinding(*ahead));
    } else {
        findings.push_back({"parent", State::Problem, place + ": " + client.GetErrorText(), kReachAdvice});
    }
    return findings;
}

}  // namespace

KelVector<Finding> ExamineRoot(const KelString& root) {
    struct stat folder {};
    if (stat((root + "/config/Agent.ini").c_str(), &folder) != 0)
        return {{"root", State::Problem, root + "/config/Agent.ini: " + std::strerror(errno),
                 "run this as root or as the agent's user; 'kel init' makes a root folder"}};
    stat(root.c_str(), &folder);
    const RootFiles files = WalkRoot(root, folder.st_uid);
    KelVector<Finding> findings = {ExamineModes(root, folder, files), ExamineSpace(root)};
    for (Finding& finding : ExaminePassword(root))
        findings.push_back(std::move(finding));
    if (!files.damaged.empty())
        findings.push_back(
            {"databases", State::Warning, "damaged databases were moved aside: " + Named(files.damaged),
             "check the disk (dmesg, smartctl); the tree has refilled the new ones, so these can "
             "be removed"});
    return findings;
}

KelVector<Finding> ExamineStoppedAgent(const KelString& root) {
    KelVector<Finding> findings = {ExaminePort(root)};
    for (Finding& finding : ExaminePlaceOfParent(root))
        findings.push_back(std::move(finding));
    return findings;
}

KelVector<Finding> ExamineParent(const KelContainer& relay) {
    const KelString role = relay.GetString("Role");
    const KelString name = relay.GetString("ParentName");
    if (role == "master") return {{"parent", State::Ok, "a master needs none", {}}};
    if (name.empty())
        return {{"parent", State::Problem, "this " + role + " has no parent", "kel parent HOST:PORT"}};
    const KelString place = name + ":" + relay.GetString("ParentPort");
    KelVector<Finding> findings;
    if (relay.GetBool("ParentSync"))
        findings.push_back({"parent", State::Ok, place + " answers", {}});
    else
        findings.push_back(
            {"parent", State::Problem, place + ": " + relay.GetString("ParentProblem"), kReachAdvice});
    const KelString resolved = relay.GetString("ParentIPAddress");
    const KelString own = relay.GetString("ParentOwnAddress");
    if (resolved.empty())
        findings.push_back({"name", State::Problem, "the parent's name " + name + " is not known",
                            "correct ParentName in Relay.ini, the DNS or /etc/hosts"});
    else if (!AgentSecurityGetKeys() && !own.empty() && own != resolved)  // with keys, no address counts
        findings.push_back({"name", State::Problem,
                            name + " is " + resolved + " here, but the parent calls from " + own +
                                ": files that it offers are refused",
                            "have the name resolve to " + own +
                                ", or add that address to TrustedAddressRange in FileStore.ini"});
    else
        findings.push_back({"name", State::Ok, name + " is " + resolved, {}});
    if (relay.Has("ParentTimeAhead")) findings.push_back(ClockFinding(relay.GetInt64("ParentTimeAhead")));
    return findings;
}

KelVector<Finding> ExamineKeys(const KelContainer& keys, std::int64_t now) {
    constexpr std::int64_t kDay = 86400;
    constexpr std::int64_t kWarnOfAuthority = 365 * kDay;
    constexpr std::int64_t kWarnOfOwn = 60 * kDay;  // it should have been renewed 60 days before that
    if (const KelString problem = keys.GetString("JoinProblem"); !problem.empty())
        return {{"keys", State::Problem, "this device cannot join the tree: " + problem,
                 "the agent goes on trying, and needs no restart; when the invitation has ended: kel invite "
                 "on the master, and kel keys join TOKEN here"}};
    if (!keys.GetBool("IsEnrolled")) return {};
    const std::int64_t authority = keys.GetInt64("AuthorityNotAfter");
    const std::int64_t own = keys.GetInt64("NotAfter");
    if (authority != 0 && authority - now < kWarnOfAuthority)
        return {{"keys", authority <= now ? State::Problem : State::Warning,
                 "the certificate of the tree's authority ends on " + TimeText(authority) +
                     "; no device trusts another one from then on",
                 "make the devices anew before, with an authority of their own: 'kel init'"}};
    const KelString until = TimeText(own);
    if (now < keys.GetInt64("NotBefore"))
        return {{"keys", State::Problem,
                 "the certificate of this device is valid from " + TimeText(keys.GetInt64("NotBefore")) +
                     " on, but its clock shows " + TimeText(now),
                 kSetClock}};
    if (own <= now)
        return {{"keys", State::Problem,
                 "the certificate of this device has ended on " + until + ", and its clock shows " +
                     TimeText(now),
                 KelString(kSetClock) + "; if it is right, make an invitation on the master (kel invite) and "
                                        "use it here: kel keys join TOKEN"}};
    if (own - now < kWarnOfOwn)
        return {{"keys", State::Warning,
                 "the certificate of this device ends on " + until + ", and was not renewed",
                 "the log says why: the parent and the devices above it must reach the master"}};
    return {{"keys", State::Ok, "the certificate of this device is valid until " + until, {}}};
}

KelVector<Finding> ExamineVersions(const KelString& running, const KelContainer& relay,
                                   const KelContainer& children, const KelString& restart) {
    const KelString own = KelVersion();
    if (running != own)
        return {{"versions", State::Warning,
                 "the agent runs version " + running + ", but " + own + " is installed",
                 "start it again: " + restart}};
    std::set<KelString> others;
    if (const KelString parent = relay.GetString("ParentVersion"); !parent.empty() && parent != own)
        others.insert("the parent has " + parent);
    for (std::uint32_t i = 0; i < ItemCount(children); ++i)
        if (const KelString child = children.GetContainer("Values", i).GetString("Version"); child != own)
            others.insert("children have " + child);
    if (others.empty()) return {{"versions", State::Ok, own + ", as parent and children have", {}}};
    KelString text = "this device has " + own;
    for (const KelString& other : others)
        text += ", " + other;
    return {{"versions", State::Warning, text,
             "install the same version in the whole tree, from the master down"}};
}
