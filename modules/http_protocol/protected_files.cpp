#include "modules/http_protocol/protected_files.h"

#include <sys/stat.h>
#include <filesystem>
#include <system_error>

#include "kel/text.h"
#include "kelcore/agent.h"
#include "kelcore/http/part_file.h"

namespace kelhttp {
namespace {

/// False also when there is no such folder.
bool IsFolderAt(const struct stat& folder, const KelString& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && info.st_dev == folder.st_dev && info.st_ino == folder.st_ino;
}

}  // namespace

bool IsServableName(std::string_view path) {
    const std::string_view name = path.substr(path.rfind('/') + 1);
    return !name.starts_with(kUploadPrefix) && !name.starts_with(kPartFilePrefix);
}

bool IsStateName(std::string_view name) {
    const KelString lower = ToLowerText(name);
    return lower.find(".sqlite") != KelString::npos || lower.find(".ini") != KelString::npos;
}

bool IsStateFolder(const UniqueFd& folder) {
    struct stat info {};
    if (::fstat(folder.Get(), &info) != 0) return true;
    const KelString& data = KelAgentGetDataDir();
    if (IsFolderAt(info, KelAgentGetConfigDir()) || IsFolderAt(info, data)) return true;
    std::error_code error;
    std::filesystem::directory_iterator entry(data, error);
    for (const std::filesystem::directory_iterator end; !error && entry != end; entry.increment(error)) {
        if (IsFolderAt(info, entry->path().native())) return true;
    }
    return static_cast<bool>(error);
}

}  // namespace kelhttp
