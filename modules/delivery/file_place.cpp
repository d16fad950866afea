#include "modules/delivery/file_place.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

const IniSetting& PlaceAccess::Setting() {
    static const IniSetting setting =
        IniSetting::Text("Delivery", "Access", "all").OneOf({"all", "group", "owner"}).Vital();
    return setting;
}

PlaceAccess PlaceAccess::Read(const IniFile& ini) {
    const KelString value = ReadIniText(ini, Setting());
    if (IsEqualTo(value, "owner", false)) return {0600, 0700};
    if (IsEqualTo(value, "group", false)) return {0640, 0750};
    return {};
}

UniqueFd OpenPlaced(const FilePlace& place) {
    // O_NONBLOCK: a pipe must not block the open.
    UniqueFd file = FileOpenBeneath(place.root, place.path, O_RDONLY | O_NONBLOCK);
    struct stat status {};
    if (file && (::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode))) file.Reset();
    return file;
}

bool HoldsContent(const FilePlace& place, const KelString& checksum, const KelString& sha256) {
    const UniqueFd file = OpenPlaced(place);
    KelString present;
    if (!sha256.empty()) return file && FileSha256(file.Get(), present) && present == sha256;
    return file && FileMd5(file.Get(), present) && IsEqualTo(present, checksum, false);
}

KelString ObstacleTo(const FilePlace& place) {
    const KelVector<KelString> elements = SplitText(place.path, '/');
    KelString path = place.root;
    for (std::size_t i = 0; i < elements.size(); ++i) {
        path += "/" + elements[i];
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) return {};
        const bool isLast = i + 1 == elements.size();
        if (S_ISDIR(status.st_mode) != isLast) continue;
        const bool isInName = i + place.nameLevels >= elements.size();
        return isInName || S_ISLNK(status.st_mode) ? path : KelString();
    }
    return {};
}

KelStatus PlaceCopy(const KelString& source, const FilePlace& place, const PlaceAccess& access,
                    const KelString& workFolder, const KelString& sha256) {
    for (const KelString& needed : {place.root, workFolder}) {
        if (!needed.empty() && !PathCreate(needed))
            return KelError{kKelErrorInternal,
                            KelFormat("The folder %S cannot be created; check its rights", needed)};
    }
    KelString below, name;
    SplitPath(place.path, below, name);
    const UniqueFd root(::open(place.root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd folder = root ? DirCreateBeneath(root, below, access.folderMode) : UniqueFd();
    if (!folder && (errno == ELOOP || errno == ENOTDIR))
        return KelError{
            kKelErrorInternal,
            KelFormat("The folder of %S cannot be created: a file or a link is in its place; remove it",
                      place.Whole())};
    if (folder && FileCopyInto(source, folder, name, access.fileMode, workFolder, sha256)) return {};
    if (folder && errno == EKEYREJECTED)
        return KelError{kKelErrorBadInput,
                        "Refused, since its content is not what the master has published; check "
                        "the devices above, which have brought it"};
    return KelError{kKelErrorInternal, KelFormat("%S cannot be copied to %S; check free space and rights",
                                                 source, place.Whole())};
}
