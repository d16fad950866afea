#include "modules/http_protocol/action_call.h"

#include <exception>

#include "kel/container.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/json.h"

namespace kelhttp {
namespace {

/// Values in the arguments of a call; the largest calls, offers to the devices of a tree, have one for each
/// device. Answers may hold more.
constexpr std::size_t kMaxValues = 250'000;
/// The same of the calls of scripts: a value takes about 200 bytes of memory, and as little as five in JSON.
constexpr std::size_t kMaxJsonValues = 50'000;

constexpr std::size_t kMaxCallerBytes = 64;

constexpr const char* kXmlType = "application/xml";
constexpr const char* kJsonType = "application/json";

KelString MediaType(std::string_view field) {
    return Trim(field.substr(0, field.find(';')));
}

ActionAnswer Run(const ActionCall& call) {
    KelContainer container;
    const KelStatus parsed = call.bodyFormat == BodyFormat::Json
                                 ? ContainerFromJson(call.body, container, kMaxJsonValues)
                                 : container.LoadFromXML(call.body, kMaxValues);
    if (!parsed) return {400, 0, "text/plain", parsed.Error().message + "\n"};
    KelContainer info;
    info.SetString("HttpProtocolRequestAddress", call.peer.ToText());
    if (!call.caller.empty() && call.caller.size() <= kMaxCallerBytes)
        info.SetString("HttpProtocolRequestCaller", call.caller);
    if (call.proved.isVerified) {
        info.SetString("HttpProtocolRequestPeer", call.proved.guid);
        info.SetString("HttpProtocolRequestPeerRole", KelDeviceRoleName(call.proved.role));
    }
    container.Remove(kActionRequestInfo);
    container.SetContainer(kActionRequestInfo, std::move(info));

    const unsigned int result = CallLocal(call.name, container);
    container.Remove(kActionRequestInfo);  // the caller's next call must not carry it
    if (result == kKelErrorUnknownAction && !ActionDbIsActionRegistered(call.name))
        return {404, 0, "text/plain", {}};
    if (call.answerFormat == BodyFormat::Json) return {200, result, kJsonType, ContainerToJson(container)};
    return {200, result, kXmlType, container.SaveToXML()};
}

}  // namespace

std::optional<BodyFormat> FormatOfContentType(std::string_view type) {
    const KelString name = MediaType(type);
    if (name.empty() || IsEqualTo(name, kXmlType, false) || IsEqualTo(name, "text/xml", false))
        return BodyFormat::Xml;
    if (IsEqualTo(name, kJsonType, false)) return BodyFormat::Json;
    return std::nullopt;
}

BodyFormat FormatOfAccept(std::string_view accept) {
    for (const KelString& item : SplitText(accept, ',')) {
        const KelString name = MediaType(item);
        if (IsEqualTo(name, kJsonType, false)) return BodyFormat::Json;
        if (IsEqualTo(name, kXmlType, false) || IsEqualTo(name, "text/xml", false)) return BodyFormat::Xml;
    }
    return BodyFormat::Xml;
}

ActionAnswer RunActionCall(const ActionCall& call) {
    try {
        return Run(call);
    } catch (const std::exception& failure) {
        return {500, kKelErrorInternal, "text/plain", KelString(failure.what()) + "\n"};
    }
}

}  // namespace kelhttp
