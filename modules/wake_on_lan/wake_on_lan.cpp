#include "modules/wake_on_lan/wake_on_lan.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "kel/format.h"
#include "kel/ini_file.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/http/url.h"
#include "kelcore/net/udp_socket.h"

namespace {

constexpr std::size_t kMostAsked = 3;  ///< agents of a subnet
// Seconds.
constexpr int kConnectTimeout = 3;
constexpr int kAgentTimeout = 10;
constexpr int kWayTimeout = 60;

constexpr std::uint64_t kIdleMs = 3'600'000;

const IniSetting kPort = IniSetting::Number("WakeOnLan", "Port", 9).Between(1, 65535);

unsigned int Refuse(KelContainer* arguments, const KelError& error) {
    arguments->Clear();
    arguments->SetString("Message", error.message);
    return error.code;
}

KelString CallUrl(const KelString& hostAndPort) {
    return UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(), hostAndPort);
}

/// The own subnet of an interface; nothing when there is no broadcast in it.
std::optional<Subnet> SubnetOfInterface(const NetworkInterface& own) {
    const auto subnet = SubnetOf(own.address, own.mask);
    return subnet ? std::optional(*subnet) : std::nullopt;
}

/// A way has this device call others: not for those below it, or beside it.
bool MayNameAWay(const KelContainer& arguments) {
    return Includes(CallOriginOf(arguments).callers,
                    KelCallers::Local | KelCallers::Parent | KelCallers::Operator);
}

std::uint64_t MillisecondsUntil(std::optional<WakeSchedule::Clock::time_point> due) {
    if (!due) return kIdleMs;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - WakeSchedule::Clock::now());
    return static_cast<std::uint64_t>(std::max<std::int64_t>(left.count(), 0));
}

}  // namespace

WakeOnLan::WakeOnLan(Interfaces interfaces)
    : KelModule("WakeOnLan", "Wake-on-LAN module"),
      interfaces_(std::move(interfaces)),
      repeats_(
          Log(), KelPeriodicThread::Begin::WithPause,
          [this] {
              SendRepeats();
              return false;
          },
          [this](bool) { return MillisecondsUntil(schedule_.NextDue()); }) {}

WakeOnLan::~WakeOnLan() {
    WakeOnLan::Cleanup();
}

void WakeOnLan::Register(const char* handle) {
    ActionDbRegisterActions<WakeOnLan>(
        *this, handle,
        {{&WakeOnLan::AddSubnet,
          {.signature = "WakeOnLanAddSubnet",
           .purpose = "Enters an agent that can send into its own subnet; kept in memory.",
           .inputs = "string WakeOnLanAgentGuid, int32 WakeOnLanDeviceIPAddr (in host order), int32 "
                     "WakeOnLanDeviceAgentPort, int32 WakeOnLanDeviceNetworkMask (in host order)",
           .results = "1 unusable",
           .callers = KelCallers::Local}},
         {&WakeOnLan::WakeUp,
          {.signature = "WakeOnLanWakeUp",
           .purpose = "Wakes a device by a magic packet, or has a device nearer to it do so; only the parent "
                      "may name a way.",
           .inputs =
               "string WakeOnLanDeviceMACAddr, string WakeOnLanDeviceIPAddr, string "
               "WakeOnLanDeviceNetworkMask, int32 WakeOnLanNumberOfRetry? (repeats; absent: 0), int32 "
               "WakeOnLanRetryInterval? (seconds; absent: 60), string WakeOnLanWay[]? (HOST:PORT of the "
               "devices that pass it on, the next one first), bool WakeOnLanOnlyOwnSubnet?",
           .outputs = "string WakeOnLanSenderIPAddr, string WakeOnLanBroadcastIPAddr",
           .results = "1 unusable; 17 no device is known that could send or pass it on; 18 not sent",
           .callers = KelCallers::Parent | KelCallers::Child | KelCallers::Operator}}});
}

bool WakeOnLan::Initialise() {
    IniFile ini;
    ini.Open(IniPath());  // the defaults serve without it
    port_ = static_cast<std::uint16_t>(ReadIniNumber(ini, kPort));
    return true;
}

std::span<const IniSetting> WakeOnLan::IniSettings() const {
    static const std::array settings = {kPort};
    return settings;
}

unsigned int WakeOnLan::AddSubnet(KelContainer* arguments) {
    Subnet subnet;
    SubnetAgent agent;
    if (const KelStatus read = ReadSubnetAgent(*arguments, subnet, agent); !read) {
        Log().Detail("An agent of a subnet was left out: %S\n", read.Error().message);
        return Refuse(arguments, read.Error());
    }
    Log().Detail("The agent %S is in the subnet %S\n", agent.guid, subnet.Text());
    agents_.Add(subnet, std::move(agent));
    arguments->Clear();
    return kKelOk;
}

unsigned int WakeOnLan::WakeUp(KelContainer* arguments) {
    auto request = ReadWakeUpRequest(*arguments);
    if (request && !request->way.empty() && !MayNameAWay(*arguments))
        request = KelError{kKelErrorBadInput,
                           KelFormat("%S may not name a way: it is not the parent of this device",
                                     ActionRequestAddress(*arguments))};
    auto answer = request ? Route(*request) : KelResult<KelContainer>(request.Error());
    if (!answer) {
        Log().Warning("No wake-up was sent: %S\n", answer.Error().message);
        return Refuse(arguments, answer.Error());
    }
    *arguments = std::move(*answer);
    return kKelOk;
}

KelResult<KelContainer> WakeOnLan::Route(const WakeUpRequest& request) {
    if (!request.way.empty()) return PassOn(request, request.way.front());
    if (const auto own = InterfaceToward(request.host)) return SendRequested(request, *own);
    if (request.onlyOwnSubnet)
        return KelError{kKelErrorNotAvailable,
                        KelFormat("%S is in no subnet of this device", request.host.ToText())};
    return AskAgents(request);
}

KelResult<KelContainer> WakeOnLan::SendRequested(const WakeUpRequest& request, const NetworkInterface& own) {
    if (const KelStatus sent = Send(request.card, own); !sent) return sent.Error();
    schedule_.Repeat(request.card, request.host, request.repeats, request.interval,
                     WakeSchedule::Clock::now());
    repeats_.Signal(0);
    const KelString broadcast = SubnetOfInterface(own)->Broadcast().ToText();
    Log().Print("A wake-up for %S (%S) was sent to %S\n", request.host.ToText(), MacAddressText(request.card),
                broadcast);
    KelContainer answer;
    answer.SetString("WakeOnLanSenderIPAddr", own.address.ToText());
    answer.SetString("WakeOnLanBroadcastIPAddr", broadcast);
    return answer;
}

KelResult<KelContainer> WakeOnLan::PassOn(const WakeUpRequest& request, const KelString& device) {
    KelContainer values = request.ForNext();
    const int timeout = request.way.empty() ? kAgentTimeout : kWayTimeout;
    const unsigned int error = ActionDbInvokeContainer(nullptr, CallUrl(device), "WakeOnLanWakeUp", values, 0,
                                                       kConnectTimeout, timeout, nullptr);
    if (error == kKelOk) return values;
    const KelString message = values.GetString("Message");
    return KelError{kKelErrorNotAvailable,
                    KelFormat("%S: %S", device, message.empty() ? KelErrorText(error) : message)};
}

KelResult<KelContainer> WakeOnLan::AskAgents(const WakeUpRequest& request) {
    KelVector<SubnetAgent> agents = agents_.Find(request.subnet, request.host);
    if (agents.size() > kMostAsked) agents.resize(kMostAsked);
    auto answer = KelResult<KelContainer>(
        KelError{kKelErrorNotAvailable,
                 KelFormat("%S is in no subnet of this device, and no other device in %S is known",
                           request.host.ToText(), request.subnet.Text())});
    for (const SubnetAgent& agent : agents) {
        answer = PassOn(request, KelFormat("%S:%u", agent.address.ToText(), unsigned{agent.port}));
        if (answer) break;
    }
    return answer;
}

/// The own interface whose subnet contains a host.
std::optional<NetworkInterface> WakeOnLan::InterfaceToward(IpAddress host) const {
    for (const NetworkInterface& own : interfaces_())
        if (const auto subnet = SubnetOfInterface(own); subnet && subnet->Contains(host)) return own;
    return std::nullopt;
}

KelStatus WakeOnLan::Send(const MacAddress& card, const NetworkInterface& own) {
    const MagicPacket packet = MakeMagicPacket(card);
    const IpAddress broadcast = SubnetOfInterface(own)->Broadcast();
    UdpSocket socket;
    const bool isSent = socket.Bind(own.address, 0) && socket.SetOption(SOL_SOCKET, SO_BROADCAST, 1) &&
                        socket.SetOption(IPPROTO_IP, IP_TTL, 1) && socket.Connect(broadcast, port_, 1) &&
                        ::send(socket.Get(), packet.data(), packet.size(), 0) == std::ssize(packet);
    if (isSent) return {};
    return KelError{kKelErrorInternal, KelFormat("the packet for %S cannot be sent: %S", broadcast.ToText(),
                                                 std::generic_category().message(errno))};
}

void WakeOnLan::SendRepeats() {
    for (const WakeSchedule::Packet& packet : schedule_.TakeDue(WakeSchedule::Clock::now())) {
        const auto own = InterfaceToward(packet.host);
        const KelStatus sent =
            own ? Send(packet.card, *own)
                : KelError{kKelErrorInternal,
                           packet.host.ToText() + " is in no subnet of this device any more"};
        if (sent)
            Log().Detail("The wake-up for %S was repeated\n", packet.host.ToText());
        else
            Log().Warning("A wake-up was not repeated: %S\n", sent.Error().message);
    }
}
