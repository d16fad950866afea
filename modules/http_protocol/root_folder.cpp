#include "modules/http_protocol/root_folder.h"

#include <fcntl.h>

#include <cerrno>

#include "kel/file.h"

namespace kelhttp {

std::shared_ptr<const UniqueFd> RootFolder::Folder(bool again) const {
    const std::lock_guard lock(mutex_);
    if (!folder_ || again)
        folder_ = std::make_shared<const UniqueFd>(::open(path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return folder_;
}

UniqueFd RootFolder::Open(const KelString& name, int flags) const {
    UniqueFd opened = FileOpenBeneath(*Folder(false), name, flags);
    if (opened || (errno != ENOENT && errno != EBADF)) return opened;
    return FileOpenBeneath(*Folder(true), name, flags);
}

}  // namespace kelhttp
