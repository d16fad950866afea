#include <cstdio>

#include "cli/commands.h"
#include "cli/remote.h"

int RunUpload(const CommonOptions& common, const UploadOptions&) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer call;
    const unsigned int result = remote->Call("FileStorePerformManualUpload", call);
    if (result == 0 && common.json) std::puts("[]");
    return ExitCodeOf(result);
}
