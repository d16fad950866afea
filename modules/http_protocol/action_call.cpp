#include "modules/http_protocol/action_call.h"

#include <exception>

#include "kel/container.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/json.h"
#include "kelcore/metrics/metrics_page.h"

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

ActionAnswer MetricsAnswer(unsigned int result, const KelContainer& container) {
    if (result != kKelOk) return {403, result, "text/plain", container.GetString("Message") + "\n"};
    return {200, result, KelMetricsPage::kMediaType, container.GetString("Text")};
}

ActionAnswer Run(const ActionCall& call) {
    KelContainer container;
    const KelStatus parsed = call.body.empty() && call.answerFormat == BodyFormat::Metrics ? KelStatus()
                             : call.bodyFormat == BodyFormat::Json
                                 ? ContainerFromJson(call.body, container, kMaxJsonValues)
                                 : container.LoadFromXML(call.body, kMaxValues);
    if (!parsed) return {400, 0, "text/plain", parsed.Error().message + "\n"};
    const KelString caller = call.caller.size() <= kMaxCallerBytes ? call.caller : KelString();
    const unsigned int result = CallLocalFor(call.peer, caller, call.name, container);
    if (result == kKelErrorUnknownAction && !ActionDbIsActionRegistered(call.name))
        return {404, 0, "text/plain", {}};
    if (call.answerFormat == BodyFormat::Metrics) return MetricsAnswer(result, container);
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
