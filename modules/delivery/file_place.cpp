#include "modules/delivery/file_place.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <map>
#include <utility>

#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/file_content.h"
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

namespace {

/// Fewer copies are synced one by one: the file system may have much to write that is not theirs.
constexpr std::size_t kManyCopies = 5;

KelStatus CreateNeeded(std::initializer_list<KelString> folders) {
    for (const KelString& needed : folders)
        if (!needed.empty() && !PathCreate(needed))
            return KelError{kKelErrorInternal,
                            KelFormat("The folder %S cannot be created; check its rights", needed)};
    return {};
}

KelError CopyError(const KelString& source, const FilePlace& place) {
    return {kKelErrorInternal,
            KelFormat("%S cannot be copied to %S; check free space and rights", source, place.Whole())};
}

/// Opens the folder of a place, making it.
KelResult<UniqueFd> OpenFolderOf(const FilePlace& place, const KelString& below, const PlaceAccess& access) {
    const UniqueFd root(::open(place.root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    UniqueFd folder = root ? DirCreateBeneath(root, below, access.folderMode) : UniqueFd();
    if (folder) return folder;
    if (errno == ELOOP || errno == ENOTDIR)
        return KelError{
            kKelErrorInternal,
            KelFormat("The folder of %S cannot be created: a file or a link is in its place; remove it",
                      place.Whole())};
    return CopyError("A file", place);
}

}  // namespace

KelStatus PlaceCopy(const KelString& source, const FilePlace& place, const PlaceAccess& access,
                    const KelString& workFolder, const KelString& sha256) {
    if (KelStatus created = CreateNeeded({place.root, workFolder}); !created) return created;
    KelString below, name;
    SplitPath(place.path, below, name);
    const auto folder = OpenFolderOf(place, below, access);
    if (!folder) return folder.Error();
    if (FileCopyInto(source, *folder, name, access.fileMode, workFolder, sha256)) return {};
    if (errno == EKEYREJECTED)
        return KelError{kKelErrorBadInput,
                        "Refused, since its content is not what the master has published; check "
                        "the devices above, which have brought it"};
    return CopyError(source, place);
}

PlacedTogether::~PlacedTogether() {
    Drop();
}

void PlacedTogether::Drop() {
    for (const Copy& copy : copies_)
        FileDelete(copy.path);
    copies_.clear();
    paths_.clear();
}

KelStatus PlacedTogether::Add(const KelString& source, const FilePlace& place, const KelString& workFolder) {
    if (KelStatus created = CreateNeeded({place.root, workFolder}); !created) return created;
    const UniqueFd from(::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!from || ::fstat(from.Get(), &status) != 0 || !S_ISREG(status.st_mode))
        return CopyError(source, place);
    KelString path;
    const UniqueFd copy = FileCreateTemp(workFolder, path);
    if (!copy) return CopyError(source, place);
    copies_.push_back({path, place});
    paths_.insert(place.Whole());
    if (FileCopyContent(from.Get(), copy.Get())) return {};
    FileDelete(path);
    copies_.pop_back();
    return CopyError(source, place);
}

KelStatus PlacedTogether::Place(const PlaceAccess& access) {
    if (copies_.empty()) return {};
    const KelStatus moved = MoveAll(access);
    Drop();
    return moved;
}

bool PlacedTogether::SyncCopies() const {
    if (copies_.size() < kManyCopies)
        return std::ranges::all_of(copies_, [](const Copy& copy) { return FileSync(copy.path); });
    KelString workFolder, name;
    SplitPath(copies_.front().path, workFolder, name);
    return DirSyncFileSystem(workFolder);
}

KelStatus PlacedTogether::MoveAll(const PlaceAccess& access) {
    for (const Copy& copy : copies_)
        if (::chmod(copy.path.c_str(), access.fileMode) != 0) return CopyError(copy.path, copy.place);
    // The contents come before the names.
    if (!SyncCopies())
        return KelError{kKelErrorInternal, KelFormat("%S cannot be synced", copies_.front().path)};
    std::map<KelString, UniqueFd> folders;
    for (const Copy& copy : copies_) {
        KelString below, name;
        SplitPath(copy.place.path, below, name);
        UniqueFd& folder = folders[copy.place.root + "/" + below];
        if (!folder) {
            auto opened = OpenFolderOf(copy.place, below, access);
            if (!opened) return opened.Error();
            folder = std::move(*opened);
        }
        const bool moved = ::renameat(AT_FDCWD, copy.path.c_str(), folder.Get(), name.c_str()) == 0 ||
                           (errno == EXDEV && FileCopyInto(copy.path, folder, name, access.fileMode));
        if (!moved) return CopyError(copy.path, copy.place);
    }
    for (const auto& [path, folder] : folders)
        if (::fsync(folder.Get()) != 0)
            return KelError{kKelErrorInternal, KelFormat("The folder %S cannot be synced", path)};
    return {};
}
