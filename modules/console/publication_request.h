#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/file_key.h"

/// The arguments of ConsolePublish.
struct PublicationRequest {
    KelString sourcePath;
    FileKey file;  ///< the name is never empty: that of the source when the caller gave none; no checksum yet
    KelVector<KelString> devices;     ///< as ChooseTargets takes them
    KelVector<std::int32_t> stages;   ///< see ReadStagePercents; empty: all targets at once
    std::int32_t stopAtFailures = 1;  ///< of a publication in stages; 0: never
    std::int32_t priority = 100;
    bool bypass = false;
    bool wakeOnLan = false;
    std::int32_t keepCopy = 0;
    KelContainer fileInfo;
};

/// Reads and checks the arguments of ConsolePublish; an unusable one is an error that names it.
KelResult<PublicationRequest> ReadPublicationRequest(const KelContainer& arguments);
