#include "kelcore/db/open_files.h"

#include <condition_variable>
#include <mutex>
#include <unordered_set>

namespace {

struct OpenFiles {
    std::mutex mutex;
    std::condition_variable released;
    std::unordered_set<KelString> paths;
};

OpenFiles& TheOpenFiles() {
    static OpenFiles files;
    return files;
}

}  // namespace

std::optional<OpenFileClaim> OpenFileClaim::Take(const KelString& realPath, std::chrono::milliseconds wait) {
    OpenFiles& files = TheOpenFiles();
    std::unique_lock lock(files.mutex);
    const auto deadline = std::chrono::steady_clock::now() + wait;
    if (!files.released.wait_until(lock, deadline, [&] { return files.paths.count(realPath) == 0; }))
        return std::nullopt;
    files.paths.insert(realPath);
    return OpenFileClaim(realPath);
}

OpenFileClaim::~OpenFileClaim() {
    if (realPath_.empty()) return;
    OpenFiles& files = TheOpenFiles();
    const std::lock_guard lock(files.mutex);
    files.paths.erase(realPath_);
    files.released.notify_all();
}
