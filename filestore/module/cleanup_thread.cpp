#include "filestore/module/cleanup_thread.h"

FileStoreDeleteThread::FileStoreDeleteThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

// Nothing to do yet.
bool FileStoreDeleteThread::DoWork() {
    return false;
}
