#include "filestore/transfer/local_source.h"

#include "filestore/module/file_store.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/path.h"

namespace filestore {

LocalSource ReadLocalSource(const KelContainer& arguments) {
    using Kind = LocalSource::Kind;
    if (arguments.Has("MovePath")) return {Kind::Move, arguments.GetString("MovePath")};
    if (arguments.Has("CopyPath")) return {Kind::Copy, arguments.GetString("CopyPath")};
    if (arguments.Has("FilePath")) return {Kind::External, arguments.GetString("FilePath")};
    return {};
}

bool FillChecksum(const KelString& path, KelString& checksum) {
    if (!checksum.empty() || (FileExists(path) && FileMd5(path, checksum))) return true;
    FileStore::debugFileStore.Warning("Refusing an offer whose file '%S' cannot be read\n", path);
    return false;
}

bool PlaceContent(const LocalSource& source, const KelString& folder, const KelString& destination,
                  bool keepExisting) {
    if (source.kind == LocalSource::Kind::External) return true;
    const std::int64_t sourceSize = FileGetSize64(source.path);
    const std::int64_t present = FileGetSize64(destination);
    if (present >= 0 && (sourceSize < 0 || (keepExisting && sourceSize == present))) return true;

    const bool placed = PathCreate(folder) &&
                        (source.kind == LocalSource::Kind::Move ? FileRename(source.path, destination)
                                                                : FileCopy(source.path, destination, false));
    if (!placed)
        FileStore::debugFileStore.Error(
            "Cannot bring '%S' to '%S': check space and permissions, then offer it again\n", source.path,
            destination);
    return placed;
}

std::int64_t ContentSize(const LocalSource& source, const KelString& destination) {
    const std::int64_t size = FileGetSize64(source.path);
    if (size >= 0 || source.kind == LocalSource::Kind::External) return size;
    return FileGetSize64(destination);
}

}  // namespace filestore
