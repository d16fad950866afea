#include "modules/keys/parent_calls.h"

#include <algorithm>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/action_db_remote.h"
#include "kelcore/agent.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/http/client.h"

namespace {

// Seconds; short, because the agent waits for a call in progress when it stops.
constexpr int kConnectTimeout = 5;
constexpr int kExchangeTimeout = 25;

}  // namespace

ParentPlaces FindParent() {
    ParentPlaces parent;
    KelContainer answer;
    if (CallLocal("RelayGetValues", answer) != kKelOk) return parent;
    const KelContainer& relay = answer.GetContainer("Values");
    parent.name = relay.GetString("ParentName");
    const std::int32_t port = relay.GetInt32("ParentPort");
    if (parent.name.empty() || port <= 0 || port > 65535) return parent;
    parent.port = static_cast<std::uint16_t>(port);
    for (const KelString& host : {parent.name, relay.GetString("ParentIPAddress")}) {
        KelString place = ToLowerText(KelFormat("%S:%u", host, unsigned{parent.port}));
        if (!host.empty() && std::ranges::find(parent.written, place) == parent.written.end())
            parent.written.push_back(std::move(place));
    }
    return parent;
}

unsigned int CallParent(const ParentPlaces& parent, const KelString& action, KelContainer& container,
                        ParentCall& call) {
    if (parent.port == 0) {
        call.problem = "this device has no parent";
        return kKelErrorNotAvailable;
    }
    HttpClient client(kConnectTimeout, kExchangeTimeout);
    client.SetDebugContext(CoreLog());
    client.SetServer(parent.name, parent.port);
    client.EnableAgentSecurity();
    client.EnableKeys(call.keys);
    if (!call.authority.empty()) client.ExpectAuthority(call.authority);
    const KelString callee = KelFormat("%S on %S:%u", action, parent.name, unsigned{parent.port});
    const unsigned int code = ActionDbCallThrough(client, {}, action, callee, container);
    call.peer = client.GetPeer();
    if (code == kKelErrorUnreachable)
        call.problem = client.GetErrorText();
    else if (code != kKelOk)
        call.problem = container.GetString("Message", KelErrorText(code));
    return code;
}
