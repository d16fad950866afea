#include "filestore/module/action_gate.h"

namespace {

thread_local unsigned int callDepth = 0;

}  // namespace

FileStoreActionGate::Pass::Pass(FileStoreActionGate& gate) : gate_(gate), granted_(gate.Enter()) {}

FileStoreActionGate::Pass::~Pass() {
    if (granted_) gate_.Leave();
}

void FileStoreActionGate::Open() {
    std::lock_guard lock(mutex_);
    open_ = true;
}

void FileStoreActionGate::Close() {
    std::unique_lock lock(mutex_);
    open_ = false;
    empty_.wait(lock, [this] { return inside_ == 0; });
}

bool FileStoreActionGate::Enter() {
    std::lock_guard lock(mutex_);
    if (!open_ && callDepth == 0) return false;
    ++callDepth;
    ++inside_;
    return true;
}

void FileStoreActionGate::Leave() {
    std::lock_guard lock(mutex_);
    --callDepth;
    if (--inside_ == 0) empty_.notify_all();
}

FileStoreActionGate& FileStoreGetActionGate() {
    static FileStoreActionGate gate;
    return gate;
}
