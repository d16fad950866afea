#include "modules/console/package_folder.h"

#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"
#include "kelcore/security.h"
#include "kelcore/shared_content.h"

namespace {

constexpr char kPackages[] = "Packages";
constexpr char kIncoming[] = "Incoming";  ///< beside Packages, where no label can have its name

/// Removes a file at the end of the scope, if it has not been renamed before.
class FileRemover {
  public:
    explicit FileRemover(const KelString& path) : path_(path) {}
    ~FileRemover() { FileDelete(path_); }
    FileRemover(const FileRemover&) = delete;
    FileRemover& operator=(const FileRemover&) = delete;

  private:
    const KelString& path_;
};

KelError CannotWrite(const KelString& path) {
    return KelError{kKelErrorInternal,
                    KelFormat("%S cannot be written; check the free space and rights of its folder", path)};
}

/// Creates root/Packages/label/checksum with each new entry on the disk.
bool MakeFolders(const KelString& root, const KelString& label, const KelString& checksum) {
    KelString folder = root;
    for (const KelString& element : {KelString(kPackages), label, checksum}) {
        folder += "/" + element;
        if (DirExists(folder)) continue;
        if (!PathCreate(folder) || !FileSync(folder)) return false;
    }
    return true;
}

/// The same content under other labels and names is on the disk once.
void ShareWithOtherLabels(const KelString& root, const PackageFile& file) {
    const KelString packages = PackagesFolder(root);
    for (const KelString& label : DirList(packages)) {
        const KelString folder = KelFormat("%S/%S/%S", packages, label, file.checksum);
        for (const KelString& name : DirList(folder)) {
            const KelString other = folder + "/" + name;
            if (other != file.path && ShareContent(file.path, other, IncomingFolder(root))) return;
        }
    }
}

/// In a plain tree, nothing is signed, and hashing twice would cost time.
bool Hash(const KelString& path, PackageFile& file) {
    return AgentSecurityGetKeys() ? FileMd5AndSha256(path, file.checksum, file.sha256)
                                  : FileMd5(path, file.checksum);
}

bool HoldsContent(const KelString& path, const PackageFile& file) {
    PackageFile present;
    return FileExists(path) && Hash(path, present) && present.checksum == file.checksum &&
           present.sha256 == file.sha256;
}

}  // namespace

KelString IncomingFolder(const KelString& root) {
    return root + "/" + kIncoming;
}

KelString PackagesFolder(const KelString& root) {
    return KelFormat("%S/%s", root, kPackages);
}

std::optional<FileKey> PackageAt(const KelString& root, const KelString& path) {
    const KelString folder = PackagesFolder(root) + "/";
    const KelVector<KelString> parts =
        SplitText(path.starts_with(folder) ? path.substr(folder.size()) : KelString(), '/');
    if (parts.size() != 3) return std::nullopt;
    FileKey key;
    key.label = parts[0];
    key.checksum = parts[1];
    key.name = parts[2];
    return key;
}

void RemoveUnfinishedCopies(const KelString& root) {
    DirDeleteTempFiles(IncomingFolder(root));
}

PackageFile PlaceInPackages(const KelString& root, const KelString& label, const KelString& checksum,
                            const KelString& name) {
    const KelString below = KelFormat("%s/%S/%S/%S", kPackages, label, checksum, name);
    PackageFile file;
    file.path = root + "/" + below;
    file.url = KelFormat("/%s/%S", kPackageAlias, below);
    file.checksum = checksum;
    return file;
}

KelResult<PackageFile> CopyToPackages(const KelString& root, const KelString& source, const KelString& label,
                                      const KelString& name) {
    const KelString incoming = IncomingFolder(root);
    KelString copy;
    if (!PathCreate(incoming) || !FileCreateTemp(incoming, copy)) return CannotWrite(incoming);
    const FileRemover remover(copy);
    // Copied before it is hashed: the source may change at any moment.
    if (!FileCopy(source, copy, false)) {
        return KelError{
            kKelErrorInternal,
            KelFormat("%S cannot be copied to %S; check that it can be read and that the disk has "
                      "room",
                      source, copy)};
    }
    PackageFile file;
    file.size = FileGetSize64(copy);
    if (file.size < 0 || !Hash(copy, file)) return CannotWrite(copy);
    const PackageFile place = PlaceInPackages(root, label, file.checksum, name);
    file.path = place.path;
    file.url = place.url;
    if (HoldsContent(file.path, file)) return file;
    if (!MakeFolders(root, label, file.checksum) || !FileRename(copy, file.path))
        return CannotWrite(file.path);
    ShareWithOtherLabels(root, file);
    return file;
}

KelResult<KelString> Sha256OfPackage(const PackageFile& file) {
    PackageFile present;
    if (FileExists(file.path) && FileMd5AndSha256(file.path, present.checksum, present.sha256) &&
        present.checksum == file.checksum)
        return present.sha256;
    return KelError{
        kKelErrorMissingContent,
        KelFormat("%S is not what was published any more, so it cannot be signed; publish it again",
                  file.path)};
}
