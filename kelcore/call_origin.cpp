#include "kelcore/call_origin.h"

#include <utility>

#include "kelcore/agent.h"

namespace {

constexpr const char* kAddress = "HttpProtocolRequestAddress";
constexpr const char* kCaller = "HttpProtocolRequestCaller";
constexpr const char* kMaster = "HttpProtocolRequestMaster";

}  // namespace

bool ActionIsFromNetwork(const KelContainer& arguments) {
    return arguments.Has(kActionRequestInfo);
}

KelString ActionRequestCaller(const KelContainer& arguments) {
    return arguments.GetContainer(kActionRequestInfo).GetString(kCaller);
}

KelString ActionRequestMaster(const KelContainer& arguments) {
    return arguments.GetContainer(kActionRequestInfo).GetString(kMaster);
}

void SetPassedOrigin(const KelString& operatorName, const KelString& address, const KelString& master,
                     KelContainer& arguments) {
    KelContainer info;
    info.SetString(kAddress, address);
    info.SetString(kCaller, operatorName);
    info.SetString(kMaster, master);
    arguments.Remove(kActionRequestInfo);
    arguments.SetContainer(kActionRequestInfo, std::move(info));
}

KelString ActionRequestAddress(const KelContainer& arguments) {
    return arguments.GetContainer(kActionRequestInfo).GetString(kAddress);
}

bool ActionIsFromThisDevice(const KelContainer& arguments) {
    if (!ActionIsFromNetwork(arguments)) return true;
    if (arguments.GetContainer(kActionRequestInfo).Has(kMaster)) return false;
    const KelString address = ActionRequestAddress(arguments);
    return !address.empty() && (address == "127.0.0.1" || address == KelAgentGetAddress());
}
