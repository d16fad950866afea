#include "kelcore/call_origin.h"

#include "kelcore/agent.h"

bool ActionIsFromNetwork(const KelContainer& arguments) {
    return arguments.Has(kActionRequestInfo);
}

KelString ActionRequestCaller(const KelContainer& arguments) {
    return arguments.GetContainer(kActionRequestInfo).GetString("HttpProtocolRequestCaller");
}

KelString ActionRequestAddress(const KelContainer& arguments) {
    return arguments.GetContainer(kActionRequestInfo).GetString("HttpProtocolRequestAddress");
}

bool ActionIsFromThisDevice(const KelContainer& arguments) {
    if (!ActionIsFromNetwork(arguments)) return true;
    const KelString address = ActionRequestAddress(arguments);
    return !address.empty() && (address == "127.0.0.1" || address == KelAgentGetAddress());
}
