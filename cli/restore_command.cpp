#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <limits>

#include "cli/backup_files.h"
#include "cli/commands.h"
#include "cli/local_root.h"
#include "cli/output.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/unique_fd.h"
#include "kelcore/archive.h"
#include "kelcore/archive_extractor.h"
#include "kelcore/json.h"

namespace {

/// Where the archive is unpacked: beneath the root folder, so that the files can be renamed.
constexpr const char* kUnpacked = "data/.restore";

constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kMostDescriptionBytes = std::uint64_t{64} << 20;

KelString FolderOf(const KelString& path) {
    KelString folder, name;
    SplitPath(path, folder, name);
    return folder;
}

KelResult<KelContainer> ReadDescription(const KelString& folder, const KelString& archive) {
    KelContainer description;
    const auto text = FileReadText(folder + "/" + kBackupDescription, kMostDescriptionBytes);
    if (text && ContainerFromJson(*text, description) && description.Has("Version")) return description;
    return KelError{kKelFailure, archive + " is not a backup that 'kel backup' has made"};
}

/// Databases of another state than the restored ones must not stay beside them: a store begins with empty
/// ones, and a log belongs to the file beside which it was written.
void RemoveDatabases(const KelString& root) {
    namespace fs = std::filesystem;
    std::error_code failure;
    KelVector<KelString> databases;
    auto entry = fs::recursive_directory_iterator(root, failure);
    for (; !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
        const KelString path = entry->path().lexically_relative(root).string();
        const BackupPart part = BackupPartOf(path);
        if (part == BackupPart::Store || part == BackupPart::Database || path.ends_with(".sqlite-shm"))
            databases.push_back(path);
    }
    for (const KelString& path : databases)
        if (!path.starts_with(kUnpacked)) FileDelete(root + "/" + path);
}

/// Beside the console's database: it is one of the past, so the console takes a new identifier, on which all
/// devices report themselves again.
constexpr const char* kConsoleMark = "data/Console/restored";
constexpr const char* kConsoleDatabase = "data/Console/Console.sqlite";

/// Puts the unpacked files into their places: the settings last, so that no agent starts on half of the rest.
KelStatus PutInPlace(const KelString& folder, const KelString& root, const KelVector<KelString>& files) {
    for (const bool isConfig : {false, true}) {
        for (const KelString& path : files) {
            if (path == kBackupDescription || path.ends_with("/") || path.starts_with("config/") != isConfig)
                continue;
            const KelString to = root + "/" + path;
            if (path == kConsoleDatabase && PathCreate(FolderOf(to)))
                if (auto marked = FileWriteText(root + "/" + kConsoleMark, {}); !marked) return marked;
            if (!PathCreate(FolderOf(to)) || !FileRename(folder + "/" + path, to))
                return KelError{kKelFailure,
                                to + ": cannot be written; what is restored is incomplete: remove "
                                     "the cause and restore again"};
        }
    }
    return {};
}

/// `name` is that of the file that `source` reads.
KelStatus Restore(const KelString& name, const UniqueFd& source, const KelString& root,
                  KelContainer& description) {
    const KelString folder = root + "/" + kUnpacked;
    const KelString archive = folder + ".zip";
    DirDelete(folder, true);
    if (const auto copied = CopyToNewFile(source, archive); !copied) return copied;
    // The backup is the operator's own: only its paths are not trusted.
    KelStatus status = ExtractArchive(archive, folder, {kMost, kMost, kMost});
    if (status) {
        if (auto read = ReadDescription(folder, name))
            description = std::move(*read);
        else
            status = read.Error();
    } else {
        status = KelError{status.Error().code, name + ": " + status.Error().message};
    }
    if (status) RemoveDatabases(root);
    if (status)
        status = PutInPlace(folder, root, ListArchiveEntries(archive).value_or(KelVector<KelString>()));
    const std::uint32_t executables =
        description.Has("Executables") ? description.Count("Executables") : std::uint32_t{0};
    for (std::uint32_t i = 0; status && i < executables; ++i)
        if (const KelString path = description.GetString("Executables", {}, i);
            BackupPartOf(path) != BackupPart::Never && path.find("..") == KelString::npos)
            chmod((root + "/" + path).c_str(), 0700);
    DirDelete(folder, true);
    FileDelete(archive);
    return status;
}

}  // namespace

int RunCommand(const CommonOptions& common, const RestoreOptions& options) {
    if (common.root.empty()) {
        Complain("--root names the folder that the backup is restored to");
        return kExitUsage;
    }
    umask(077);
    const KelString root = CompletePath(common.root);
    const UniqueFd archive(open(options.file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!archive) return Complain(SystemError("The backup cannot be read:", options.file));
    const AsOwner owner(root);
    const auto lock = LockStoppedRoot(root);
    if (!lock) return Complain(lock.Error());
    if (!*lock) return Complain("an agent runs on " + root + "; stop it first, nothing was changed");
    chmod(root.c_str(), 0700);
    KelContainer description;
    if (const auto restored = Restore(options.file, archive, root, description); !restored)
        return Complain(restored.Error());
    if (common.json)
        std::puts("[]");
    else
        std::printf(
            "Restored to %s: the agent of %s as of %s. The other one must not run any more: two agents "
            "with one identity take files from each other.\n",
            Printable(root).c_str(), Printable(description.GetString("Host")).c_str(),
            TimeText(description.GetInt64("Time")).c_str());
    return kExitDone;
}
