#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/device_directory.h"
#include "modules/console/publication_store.h"

/// Why the pending targets of a publication do not have it: asks the devices of the tree through the file
/// store of the master (action FileStoreExplainFile). Nothing of it is stored. Any thread.
class Explainer {
  public:
    Explainer(DeviceDirectory& directory, PublicationStore& publications)
        : directory_(directory), publications_(publications) {}

    /// One container under Values for each pending target, or for `device` (GUID or name; empty: all): what
    /// the file store answers, with the device's Name and, as AtName, that of the device at which the file
    /// waits. A target that was sent an order may wait for the order or for the file; the order comes first.
    /// LeftOut (int32): pending targets beyond the 500 that are asked about. Blocks on the network for
    /// up to 20 s: hold no lock.
    KelResult<KelContainer> Explain(const KelString& publicationId, const KelString& device);

  private:
    DeviceDirectory& directory_;
    PublicationStore& publications_;
};
