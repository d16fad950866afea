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
    KelVector<KelString> devices;  ///< GUIDs or names, or the one text "all"
    std::int32_t priority = 100;
    bool bypass = false;
    bool wakeOnLan = false;
    std::int32_t keepCopy = 0;
    KelContainer fileInfo;
};

/// Reads and checks the arguments of ConsolePublish; an unusable one is an error that names it.
KelResult<PublicationRequest> ReadPublicationRequest(const KelContainer& arguments);

/// The indexes in `devices` of the devices that the request names; "all" is every device but the master,
/// which is the first.
KelResult<KelVector<std::size_t>> ChooseTargets(const KelVector<Device>& devices,
                                                const KelVector<KelString>& wanted);

/// The arguments with which the file store takes the copied file.
KelContainer OfferFor(const PublicationRequest& request, const PackageFile& file, KelContainer devicePath);
