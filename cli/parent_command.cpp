#include <cstdio>

#include "cli/commands.h"
#include "cli/init_command.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

namespace {

/// What the device does before it answers: it calls the new parent, and waits until that has answered.
constexpr int kChangeSeconds = 60;

/// Makes the device take another parent; an exit code.
int SetParent(const Remote& remote, const KelString& place) {
    KelString host, port;
    if (!SplitParent(place, host, port)) {
        Complain("'" + place + "' is not HOST:PORT");
        return kExitUsage;
    }
    KelContainer call;
    call.SetString("ParentName", host);
    call.SetInt32("ParentPort", static_cast<std::int32_t>(ParseUint64(port).value_or(0)));
    if (const unsigned int result = remote.Call("RelaySetParent", call, kChangeSeconds); result != kKelOk)
        return ExitCodeOf(result);
    if (!call.GetBool("ParentSync"))
        Complain("the parent is " + place + " from now on, but it is not in sync: " +
                 call.GetString("ParentProblem") + "; the device goes on trying");
    return kExitDone;
}

}  // namespace

int RunCommand(const CommonOptions& common, const ParentOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    if (!options.place.empty())
        if (const int code = SetParent(*remote, options.place); code != kExitDone) return code;
    KelContainer answer;
    if (const unsigned int result = remote->Call("RelayGetValues", answer); result != kKelOk)
        return ExitCodeOf(result);
    if (common.json)
        PrintJson(answer);
    else
        std::printf("%s\n", Printable(ParentText(answer.GetContainer("Values"))).c_str());
    return kExitDone;
}
