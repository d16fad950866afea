#pragma once

#include "filestore/file_store_fixture.h"
#include "filestore/up/push_thread.h"

/// The steps of a push thread that is not started.
struct PushTest : StoreTest {
    using Outcome = FileStorePushThread::Outcome;

    Outcome Send(bool packedPass = false) { return push_.SendFile(reached_, packedPass); }
    Outcome Upload() { return push_.UploadFile(reached_, false); }
    Outcome Request() { return push_.RequestFile(reached_); }
    static std::uint64_t Waiting(const KelString& name, const KelString& set = "") {
        return AddStored(kUp, name, "TOBEUPLOADED", set);
    }

    Exposed<FileStorePushThread> push_;
    bool reached_ = false;  ///< whether a step reached the parent
};
