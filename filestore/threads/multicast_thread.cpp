#include "filestore/threads/multicast_thread.h"

FileStoreMulticastThread::FileStoreMulticastThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

// Nothing to do yet.
bool FileStoreMulticastThread::DoWork() {
    return false;
}
