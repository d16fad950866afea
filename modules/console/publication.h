#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/device.h"
#include "modules/console/package_folder.h"

/// What a caller wants published.
struct PublicationRequest {
    KelString filePath;
    KelString fileType;
    KelString fileLabel;
    KelString fileName;            ///< never empty: the name of filePath when the caller gave none
    KelVector<KelString> devices;  ///< GUIDs or names, or the one text "all" or "none"
    std::int32_t priority = 100;
    bool bypass = false;
    bool wakeOnLan = false;
    std::int32_t keepCopy = 0;
    KelContainer fileInfo;
};

/// Where a publication is to go.
struct PublicationPlan {
    KelString id;
    KelVector<Device> devices;       ///< of the tree at this moment, the master first
    KelVector<std::size_t> targets;  ///< their indexes in `devices`, each once; all can be reached
    std::size_t leftOut = 0;         ///< devices that "all" could not reach
};

/// Reads and checks the arguments of ConsolePublish; an unusable one is an error that names it.
KelResult<PublicationRequest> ReadPublicationRequest(const KelContainer& arguments);

/// The indexes in `devices` of the devices that the request names, each once. "all" is every device but the
/// master, which is the first, as far as it can be reached: why others are left out is added to `leftOut`.
/// "none" is no device: the file is only there to be asked for. A named device that cannot be reached is an
/// error that names it.
KelResult<KelVector<std::size_t>> ChooseTargets(const KelVector<Device>& devices,
                                                const KelVector<KelString>& wanted,
                                                KelVector<KelString>& leftOut);

/// The arguments with which the file store takes the copied file; an empty `devicePath` means no targets.
KelContainer OfferFor(const PublicationRequest& request, const PackageFile& file, KelContainer devicePath);
