#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <optional>

#include "cli/backup_files.h"
#include "cli/commands.h"
#include "cli/local_root.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kel/unique_fd.h"
#include "kelcore/archive.h"
#include "kelcore/error_codes.h"
#include "kelcore/json.h"
#include "kelcore/version.h"

namespace {

constexpr int kBackupSeconds = 600;
constexpr int kLevel = 3;

/// Larger files, which are written once and then only replaced, are linked instead of copied.
constexpr std::int64_t kMostCopied = std::int64_t{1} << 20;

/// A file on its way into the archive: where it stands beneath the root folder, and what is read.
struct Source {
    KelString path;
    KelString file;
};

/// A folder that is removed at the end of the scope.
class WorkFolder {
  public:
    explicit WorkFolder(KelString path) : path_(std::move(path)) {}
    ~WorkFolder() { DirDelete(path_, true); }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;
    const KelString& Path() const { return path_; }

  private:
    KelString path_;
};

KelString CanonicalPath(const KelString& path) {
    std::error_code failure;
    const auto canonical = std::filesystem::weakly_canonical(path, failure);
    return failure ? path : canonical.string();
}

bool IsMaster(const KelString& root) {
    IniFile ini;
    KelString role;
    ini.Open(root + "/config/Relay.ini");
    ini.GetEntryValue("Relay", "Role", role, {});
    return IsEqualTo(role, "master", false);
}

/// Takes each file's present content aside, because the agent goes on writing. A file that is gone by then is
/// left out.
KelVector<Source> Freeze(const KelString& root, const KelVector<KelString>& files, const KelString& folder) {
    KelVector<Source> sources;
    for (const KelString& path : files) {
        const KelString from = root + "/" + path;
        const KelString place = folder + "/files/" + std::to_string(sources.size());
        const bool isLinked = FileGetSize64(from) > kMostCopied && link(from.c_str(), place.c_str()) == 0;
        if (isLinked || FileCopy(from, place, false)) sources.push_back({path, place});
    }
    return sources;
}

KelContainer Description(const KelString& root, const KelVector<Source>& sources, bool content) {
    KelContainer description;
    description.SetString("Version", KelVersion());
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    description.SetString("Host", host);
    description.SetInt64("Time", std::time(nullptr));
    description.SetBool("Content", content);
    for (const Source& source : sources)
        if (access((root + "/" + source.path).c_str(), X_OK) == 0)
            description.SetString("Executables", source.path, KelContainer::kAbsent);
    return description;
}

KelStatus Pack(const KelString& archivePath, const KelVector<Source>& sources, const KelString& description) {
    GenericArchive archive(kArchiveZip);
    unsigned int result = archive.Create(archivePath);
    if (result == kArchiveDone) result = archive.AddEntry(kBackupDescription, description, kLevel);
    for (std::size_t i = 0; result == kArchiveDone && i < sources.size(); ++i)
        result = archive.AddEntry(sources[i].path, sources[i].file, kLevel);
    if (result == kArchiveDone) result = archive.Close();
    if (result == kArchiveDone) return {};
    return KelError{kKelFailure, archivePath + ": " + archive.GetErrorText()};
}

/// The copies of the databases that a running agent made, by their paths beneath its root folder.
KelVector<Source> DatabaseCopies(const KelString& root, const KelContainer& answer,
                                 const BackupChoice& choice) {
    const KelString prefix = CanonicalPath(root) + "/";
    KelVector<Source> sources;
    for (std::uint32_t i = 0; i < ItemCount(answer); ++i) {
        const KelContainer& copy = answer.GetContainer("Values", i);
        const KelString path = copy.GetString("Path");
        if (path.starts_with(prefix) && choice.Takes(path.substr(prefix.size())))
            sources.push_back({path.substr(prefix.size()), copy.GetString("Copy")});
    }
    return sources;
}

int PrintBackup(const CommonOptions& common, const BackupOptions& options, std::size_t files) {
    const std::int64_t size = FileGetSize64(options.file);
    if (common.json) {
        KelContainer values, list;
        values.SetString("File", options.file);
        values.SetInt64("Size", size);
        values.SetInt64("Entries", static_cast<std::int64_t>(files));
        list.SetContainer("Values", std::move(values));
        PrintJson(list);
    } else {
        std::printf("%s: %zu files, %s. Keep it as safe as the device: it holds its keys and passwords.\n",
                    Printable(options.file).c_str(), files, SizeText(size).c_str());
    }
    return kExitDone;
}

/// Makes the archive in the root folder, as its owner, and opens it; an exit code. It has no name any more.
int MakeArchive(const CommonOptions& common, const BackupOptions& options, const KelString& root,
                UniqueFd& archive, std::size_t& entries) {
    const AsOwner owner(root);
    const auto lock = LockStoppedRoot(root);
    if (!lock) return Complain(lock.Error());
    const BackupChoice choice{IsMaster(root), options.content, !*lock};
    const WorkFolder work(root + "/data/Agent/Backup");
    KelContainer answer;
    if (choice.isRunning) {
        const auto remote = Remote::Open(common);
        if (!remote) return Complain(remote.Error());
        if (const unsigned int result = remote->Call("AgentBackup", answer, kBackupSeconds); result != kKelOk)
            return ExitCodeOf(result);
    }
    if (!PathCreate(work.Path() + "/files"))
        return Complain(work.Path() + ": cannot be written; run this as the agent's user or as root");
    KelVector<Source> sources = Freeze(root, FilesToBackUp(root, choice), work.Path());
    for (Source& copy : DatabaseCopies(root, answer, choice))
        sources.push_back(std::move(copy));
    const KelString description = work.Path() + "/" + kBackupDescription;
    const KelString text = ContainerToJson(Description(root, sources, options.content));
    if (const auto written = FileWriteText(description, text); !written) return Complain(written.Error());
    const KelString path = work.Path() + "/backup.zip";
    if (const auto packed = Pack(path, sources, description); !packed) return Complain(packed.Error());
    archive = UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    entries = sources.size();
    return archive ? kExitDone : Complain(SystemError("The archive cannot be read:", path));
}

}  // namespace

int RunCommand(const CommonOptions& common, const BackupOptions& options) {
    if (common.root.empty()) {
        Complain("a backup is made on the device itself, with --root");
        return kExitUsage;
    }
    umask(077);
    const KelString root = CompletePath(common.root);
    if (!FileExists(root + "/config/Agent.ini"))
        return Complain(root + " is not the root folder of an agent");
    UniqueFd archive;
    std::size_t entries = 0;
    if (const int code = MakeArchive(common, options, root, archive, entries); code != kExitDone) return code;
    if (const auto copied = CopyToNewFile(archive, options.file); !copied) return Complain(copied.Error());
    return PrintBackup(common, options, entries);
}
