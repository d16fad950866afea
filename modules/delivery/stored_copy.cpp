#include "modules/delivery/stored_copy.h"

#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"

bool HoldsContent(const KelString& path, const KelString& checksum) {
    KelString present;
    return FileExists(path) && FileMd5(path, present) && IsEqualTo(present, checksum, false);
}

KelStatus PlaceCopy(const KelString& source, const KelString& path, const KelString& workFolder) {
    KelString folder;
    KelString name;
    SplitPath(path, folder, name);
    for (const KelString& needed : {folder, workFolder}) {
        if (!needed.empty() && !PathCreate(needed))
            return KelError{1, KelFormat("The folder %S cannot be created; check its rights", needed)};
    }
    if (!FileCopy(source, path, false, workFolder)) {
        return KelError{1, KelFormat("%S cannot be copied to %S; check free space and rights", source, path)};
    }
    return {};
}
