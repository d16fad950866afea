#include "kelcore/call_origin.h"

#include "kelcore/agent.h"

namespace {

constexpr const char* kRequestInfo = "HttpProtocolRequestInfo";

}  // namespace

KelString ActionRequestAddress(const KelContainer& arguments) {
    return arguments.GetContainer(kRequestInfo).GetString("HttpProtocolRequestAddress");
}

bool ActionIsFromThisDevice(const KelContainer& arguments) {
    if (!arguments.Has(kRequestInfo)) return true;
    const KelString address = ActionRequestAddress(arguments);
    return !address.empty() && (address == "127.0.0.1" || address == KelAgentGetAddress());
}
