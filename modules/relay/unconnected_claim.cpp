#include "modules/relay/unconnected_claim.h"

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"

namespace {

KelString NameOf(const KelString& path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

KelResult<UnconnectedRequest> UnconnectedClaim::Take(const UnconnectedRequest& request) const {
    const KelString path = claimed_ + "/" + NameOf(request.path);
    const bool isMoved = PathCreate(claimed_) &&
                         (request.contentPath.empty() ||
                          FileRename(request.contentPath, claimed_ + "/" + NameOf(request.contentPath))) &&
                         FileRename(request.path, path);
    if (!isMoved) {
        return KelError{1, KelFormat("it cannot be moved to %S; check the rights of both folders", claimed_)};
    }
    return ReadUnconnectedRequest(path);
}

void UnconnectedClaim::GiveBack() const {
    for (const KelString& name : DirList(claimed_)) {
        const KelString claimed = claimed_ + "/" + name;
        const KelString kept = kept_ + "/" + name;
        if (!FileRename(claimed, kept, true) && FileExists(kept)) FileDelete(claimed);
    }
}
