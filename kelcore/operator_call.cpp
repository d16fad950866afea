#include "kelcore/operator_call.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/call_origin.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/http/url.h"

namespace {

constexpr std::size_t kMostStops = 64;
constexpr std::size_t kMostNameBytes = 253;
constexpr std::size_t kMostAnswerBytes = std::size_t{16} << 20;
constexpr int kConnectSeconds = 3;
/// How much earlier than this device the next one is to answer.
constexpr int kMargin = 1;
/// Half of the workers that an HTTP server has by default.
constexpr int kMostAtOnce = 4;

bool IsShortText(const KelString& text) {
    return text.size() <= kMostNameBytes && !HasControlCharacter(text);
}

KelError BadPathName(const KelString& text) {
    return {kKelErrorBadInput,
            KelFormat("\"%S\" is not a path name of the form host:port/GUID/MAC/IP/mask", text)};
}

/// Counts the calls that are being passed on; the limit is for the process.
class Passage {
  public:
    Passage() : isOpen_(++count_ <= kMostAtOnce) {}
    ~Passage() { --count_; }
    Passage(const Passage&) = delete;
    Passage& operator=(const Passage&) = delete;

    bool IsOpen() const { return isOpen_; }

  private:
    static inline std::atomic<int> count_ = 0;
    bool isOpen_;
};

/// Why the next device did not take the call.
KelError NotTaken(unsigned int error, const KelString& device, const KelString& message) {
    if (!message.empty()) return {error, message};  // it answers for one further down
    switch (error) {
        case kKelErrorUnreachable:
            return {error, KelFormat("%S does not answer the device above it", device)};
        case kKelErrorUnknownAction:
            return {kKelErrorNotAvailable,
                    KelFormat("The version of %S cannot be steered through the master; update it", device)};
        case kKelErrorCredentials:
            return {kKelErrorNotAvailable,
                    KelFormat("%S refuses the credentials of the device above it", device)};
        default:
            return {error, device + ": " + KelErrorText(error)};
    }
}

KelContainer Given(unsigned int result, KelContainer answer) {
    KelContainer given;
    given.SetInt64("Result", result);
    given.SetContainer("Answer", std::move(answer));
    return given;
}

KelContainer Refused(unsigned int result, const KelString& message) {
    KelContainer answer;
    answer.SetString("Message", message);
    return Given(result, std::move(answer));
}

}  // namespace

KelResult<OperatorCall> OperatorCall::Read(const KelContainer& arguments) {
    OperatorCall call;
    const std::uint32_t stops = arguments.Has("Way") ? arguments.Count("Way") : 0;
    if (stops == 0 || stops > kMostStops)
        return KelError{kKelErrorBadInput, "The way to the device is missing or too long"};
    for (std::uint32_t i = 0; i < stops; ++i) {
        const KelContainer& values = arguments.GetContainer("Way", i);
        Stop stop{values.GetString("PathName"), values.GetString("Name")};
        if (!ParseDevicePathName(stop.pathName) || !IsShortText(stop.name)) return BadPathName(stop.pathName);
        call.way.push_back(std::move(stop));
    }
    call.action = arguments.GetString("Action");
    if (call.action.empty()) return KelError{kKelErrorBadInput, "The action to call is missing"};
    call.arguments = arguments.GetContainer("Arguments");
    call.operatorName = arguments.GetString("Operator");
    call.master = arguments.GetString("Master");
    if (!IsShortText(call.action) || !IsShortText(call.operatorName) || !IsHostAndPort(call.master))
        return KelError{kKelErrorBadInput, "Action, Operator or Master of a call is unusable"};
    call.seconds = std::clamp(arguments.GetInt32("Seconds", kDefaultSeconds), 0, kMostSeconds);
    return call;
}

KelContainer OperatorCall::ToContainer() const {
    KelContainer container;
    for (std::uint32_t i = 0; i < way.size(); ++i) {
        KelContainer stop;
        stop.SetString("PathName", way[i].pathName);
        stop.SetString("Name", way[i].name);
        container.SetContainer("Way", std::move(stop), i);
    }
    container.SetString("Action", action);
    container.SetContainer("Arguments", arguments);
    container.SetString("Operator", operatorName);
    container.SetString("Master", master);
    container.SetInt32("Seconds", seconds);
    return container;
}

KelResult<KelContainer> PassOn(const OperatorCall& call) {
    const OperatorCall::Stop& next = call.way.front();
    const auto name = ParseDevicePathName(next.pathName);
    if (!name) return BadPathName(next.pathName);
    const KelString device = KelFormat("%S (%S)", next.name, name->address);
    const Passage passage;
    if (!passage.IsOpen())
        return KelError{kKelErrorNotAvailable,
                        KelFormat("Too many calls are being passed on to devices; call %S again", device)};
    if (call.seconds < kConnectSeconds + kMargin)
        return KelError{kKelErrorUnreachable, KelFormat("No time was left to call %S", device)};
    OperatorCall passed = call;
    passed.seconds = call.seconds - kMargin;
    KelContainer container = passed.ToContainer();
    // With the GUID, so that in a tree with keys no other device gets the call.
    const KelString url =
        UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(), name->address + "/" + name->guid);
    const unsigned int error =
        ActionDbInvokeContainer(call.operatorName.c_str(), url, kActionCallDevice, container, 0,
                                kConnectSeconds, call.seconds - kConnectSeconds, nullptr);
    if (error != kKelOk) return NotTaken(error, device, container.GetString("Message"));
    return container;
}

KelContainer RunOperatorCall(const OperatorCall& call, const KelString& address) {
    if (!ActionDbIsActionRegistered(call.action))
        return Refused(kKelErrorUnknownAction, KelFormat("The device has no action \"%S\"", call.action));
    KelContainer container = call.arguments;
    const KelCallOrigin origin = {.callers = KelCallers::Operator | KelCallers::Observer,
                                  .address = address,
                                  .operatorName = call.operatorName,
                                  .master = call.master};
    const unsigned int result = CallLocalFor(origin, call.action, container);
    if (container.SaveToXML().size() > kMostAnswerBytes)
        return Refused(kKelErrorNotAvailable,
                       KelFormat("The answer to %S is too large to be passed on; ask for less", call.action));
    return Given(result, std::move(container));
}
