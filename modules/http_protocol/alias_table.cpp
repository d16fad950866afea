#include "modules/http_protocol/alias_table.h"

#include <fcntl.h>
#include <cerrno>
#include <mutex>

#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"

namespace kelhttp {
namespace {

std::string_view WithoutOuterSlashes(std::string_view name) {
    while (!name.empty() && name.front() == '/')
        name.remove_prefix(1);
    while (!name.empty() && name.back() == '/')
        name.remove_suffix(1);
    return name;
}

bool IsUsableName(std::string_view name) {
    for (const KelString& element : SplitText(name, '/')) {
        if (!IsSafePathElement(element)) return false;
    }
    return true;
}

}  // namespace

std::shared_ptr<const UniqueFd> RootFolder::Folder(bool again) const {
    const KelLock lock(mutex_);
    if (!folder_ || again)
        folder_ = std::make_shared<const UniqueFd>(::open(path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return folder_;
}

UniqueFd RootFolder::Open(const KelString& name, int flags) const {
    UniqueFd opened = FileOpenBeneath(*Folder(false), name, flags);
    if (opened || (errno != ENOENT && errno != EBADF)) return opened;
    return FileOpenBeneath(*Folder(true), name, flags);
}

void AliasTable::SetWritable(const KelVector<KelString>& names) {
    const std::unique_lock lock(mutex_);
    writable_.clear();
    for (const KelString& name : names)
        writable_.emplace(WithoutOuterSlashes(name));
}

bool AliasTable::Add(std::string_view name, const KelString& folder) {
    name = WithoutOuterSlashes(name);
    if (folder.empty() || !IsUsableName(name)) return false;
    const std::unique_lock lock(mutex_);
    folders_.insert_or_assign(KelString(name), std::make_shared<const RootFolder>(folder));
    return true;
}

void AliasTable::Delete(std::string_view name, bool below) {
    name = WithoutOuterSlashes(name);
    const std::unique_lock lock(mutex_);
    if (const auto found = folders_.find(name); found != folders_.end()) folders_.erase(found);
    if (!below) return;
    const KelString prefix = KelString(name) + "/";
    auto next = folders_.lower_bound(prefix);
    while (next != folders_.end() && next->first.starts_with(prefix))
        next = folders_.erase(next);
}

std::optional<AliasMatch> AliasTable::Find(std::string_view path) const {
    if (path.empty() || path.front() != '/') return std::nullopt;
    path.remove_prefix(1);
    const std::shared_lock lock(mutex_);
    for (std::size_t border = path.rfind('/'); border != std::string_view::npos && border > 0;
         border = path.rfind('/', border - 1)) {
        const std::string_view name = path.substr(0, border);
        const auto found = folders_.find(name);
        if (found == folders_.end()) continue;
        return AliasMatch{found->second, KelString(path.substr(border + 1)), writable_.contains(name)};
    }
    return std::nullopt;
}

std::optional<AliasMatch> AliasTable::FindFolderOf(std::string_view localPath) const {
    const std::shared_lock lock(mutex_);
    for (const auto& [name, folder] : folders_) {
        std::string_view rest = localPath;
        std::string_view root = folder->Path();
        if (root.ends_with('/')) root.remove_suffix(1);
        if (!rest.starts_with(root)) continue;
        rest.remove_prefix(root.size());
        if (!rest.starts_with('/') || !IsUsableName(rest.substr(1))) continue;
        return AliasMatch{folder, KelString(rest.substr(1)), writable_.contains(name)};
    }
    return std::nullopt;
}

}  // namespace kelhttp
