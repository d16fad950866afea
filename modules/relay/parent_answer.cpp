#include "modules/relay/parent_answer.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "kel/container.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/url.h"
#include "kelcore/keys/distrust.h"
#include "kelcore/security.h"
#include "kelcore/version.h"

namespace {

// Seconds; short, because the agent waits for a call in progress when it stops.
constexpr int kConnectTimeout = 5;
constexpr int kCallTimeout = 15;

/// Trees are not deeper; limits what another device can have this one remember.
constexpr std::uint32_t kMostLevels = 64;
constexpr std::size_t kMostVersionBytes = 64;

KelString OurGuid() {
    KelContainer answer;
    return CallLocal("IdentityGetGUID", answer) == kKelOk ? answer.GetString("GUID") : KelString();
}

/// Calls the device at `url`; `answer` carries the arguments. `values` receives the container Values of its
/// answer, empty when the call fails.
unsigned int AskForValues(const KelString& url, const char* action, KelContainer& values,
                          KelContainer answer = {}) {
    const unsigned int code =
        ActionDbInvokeContainer(nullptr, url, action, answer, 0, kConnectTimeout, kCallTimeout, nullptr);
    values = answer.GetContainer("Values");
    return code;
}

KelString CallProblem(unsigned int code, const ParentPlace& place) {
    if (KelString problem = Distrust().ProblemAt(place.Text()); !problem.empty() && AgentSecurityGetKeys())
        return problem;
    switch (code) {
        case kKelErrorUnreachable:
            return AgentSecurityGetKeys()
                       ? "it cannot be reached or is not trusted; check its name and port, that its agent "
                         "runs, and the log of this device"
                       : "it cannot be reached; check its name and port, and that its agent runs";
        case kKelErrorCredentials:
            if (AgentSecurityGetKeys())
                return "it does not accept the certificate of this device; its log says why";
            return "it refuses the agent name and HTTP password of this device; they must be the same in the "
                   "whole tree";
        default:
            return KelFormat("its answer is error %u", code);
    }
}

KelVector<KelString> ReadAbove(const KelContainer& values) {
    KelVector<KelString> above;
    const std::uint32_t count = values.Has("Above") ? std::min(values.Count("Above"), kMostLevels) : 0;
    for (std::uint32_t i = 0; i < count; ++i)
        above.push_back(values.GetString("Above", {}, i));
    return above;
}

/// The parent's clock shows its time while the call was under way, between `before` and `after` of ours.
void ReadVersion(const KelContainer& values, std::int64_t before, std::int64_t after, ParentAnswer& answer) {
    const std::int64_t time = values.GetInt64("Time");
    if (time == 0) return;
    answer.version = values.GetString("Version").substr(0, kMostVersionBytes);
    answer.timeAhead = time - std::clamp(time, before, after);
}

}  // namespace

/// Whether its GUID is final is asked first: in the other order the GUID could change between the two calls.
ParentAnswer AskParent(const ParentPlace& place, bool mustBeSettled) {
    const KelString url = UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(), place.Text());
    ParentAnswer answer;
    const auto fail = [&answer](KelString problem) {
        answer.problem = std::move(problem);
        return answer;
    };
    const KelString ours = OurGuid();
    KelContainer values, aboutUs;
    aboutUs.SetString("ChildGuid", ours);
    aboutUs.SetString("ChildVersion", KelVersion());
    const std::int64_t before = std::time(nullptr);
    if (const unsigned int code = AskForValues(url, "RelayGetValues", values, std::move(aboutUs));
        code != kKelOk && code != kKelErrorUnknownAction)
        return fail(CallProblem(code, place));
    if (mustBeSettled && !values.GetBool("SchemeSettled", true))
        return fail("it has not found its own parent yet");
    answer.above = ReadAbove(values);
    ReadVersion(values, before, std::time(nullptr), answer);
    if (const unsigned int code = AskForValues(url, "IdentityGetValues", values); code != kKelOk)
        return fail(CallProblem(code, place));
    const KelString guid = values.GetString("GUID");
    if (!IsGuid(guid)) return fail(KelFormat("its GUID %S is malformed", guid));
    answer.guid = guid;
    answer.ownAddress = values.GetString("IPAddress");
    answer.consoleId = values.GetString("ConsoleId");
    const bool isBelow = std::ranges::find(answer.above, ours) != answer.above.end();
    answer.isLoop = guid == ours || isBelow;
    if (guid == ours) return fail("it is this device itself");
    if (isBelow) return fail("it is below this device");
    return answer;
}
