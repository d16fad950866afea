#include "cli/backup_files.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>

namespace {

constexpr std::array kNever = {"log/", "run/", "data/agent.lock", "data/Agent/Backup/",
                               "data/FileStore/Temp/"};

/// The files that go down from here, with their targets.
constexpr const char* kPublications = "data/FileStore/FileStore.sqlite";

constexpr std::array kContent = {"data/FileStore/downstream/", "data/FileStore/upstream/",
                                 "data/Delivery/Inbox/", "data/Delivery/Collected/",
                                 "data/Delivery/Incoming/"};

bool BeginsWithOne(const KelString& path, const auto& beginnings) {
    return std::ranges::any_of(beginnings, [&path](const char* begin) { return path.starts_with(begin); });
}

bool IsIn(const KelString& name, std::string_view part) {
    return name.find(part) != KelString::npos;
}

}  // namespace

BackupPart BackupPartOf(const KelString& path) {
    const KelString name = path.substr(path.rfind('/') + 1);
    if (BeginsWithOne(path, kNever) || name.starts_with(".kel-") || name.ends_with(".sqlite-shm") ||
        IsIn(name, ".sqlite.damaged-") || IsIn(name, ".sqlite.schema-"))
        return BackupPart::Never;
    if (BeginsWithOne(path, kContent)) return BackupPart::Content;
    if (!name.ends_with(".sqlite") && !name.ends_with(".sqlite-wal")) return BackupPart::Always;
    return path.starts_with("data/FileStore/") && !path.starts_with(kPublications) ? BackupPart::Store
                                                                                   : BackupPart::Database;
}

bool BackupChoice::Takes(const KelString& path) const {
    switch (BackupPartOf(path)) {
        case BackupPart::Always:
            return true;
        case BackupPart::Database:
            return isMaster || !path.starts_with(kPublications);
        case BackupPart::Content:
            return content;
        default:
            return false;
    }
}

KelVector<KelString> FilesToBackUp(const KelString& root, const BackupChoice& choice) {
    namespace fs = std::filesystem;
    KelVector<KelString> files;
    std::error_code failure;
    auto entry = fs::recursive_directory_iterator(root, failure);
    // What disappears while the agent goes on is none of the backup's.
    for (; !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
        std::error_code gone;
        if (entry->is_symlink(gone) || !entry->is_regular_file(gone)) continue;
        KelString path = entry->path().lexically_relative(root).string();
        const bool isCopied = choice.isRunning && BackupPartOf(path) == BackupPart::Database;
        if (!isCopied && choice.Takes(path)) files.push_back(std::move(path));
    }
    std::ranges::sort(files);
    return files;
}
