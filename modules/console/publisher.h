#pragma once

#include <cstdint>
#include <functional>
#include <shared_mutex>
#include <unordered_set>

#include "kel/container.h"
#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/device_directory.h"
#include "modules/console/device_groups.h"
#include "modules/console/package_folder.h"
#include "modules/console/publication_request.h"
#include "modules/console/publication_store.h"

/// Publishes files: copies a file to the packages, records the publication and offers the file to the file
/// store, or an order for it when the store has the file already. Any thread, concurrently.
class Publisher {
  public:
    /// `packages` is locked, shared, while a published file is copied and offered.
    Publisher(const KelDebug& log, DeviceDirectory& directory, DeviceGroups& groups,
              PublicationStore& publications, std::shared_mutex& packages)
        : log_(log),
          directory_(directory),
          groups_(groups),
          publications_(publications),
          packages_(packages) {}

    /// The folder under which published files are kept; see CopyToPackages. Before the first use.
    void SetFolder(const KelString& folder) { folder_ = folder; }

    /// Publishes a file. The result holds the output values of ConsolePublish; an error leaves no publication
    /// behind, at most the copy of the file. Calls local actions: no lock may be held.
    KelResult<KelContainer> Publish(const PublicationRequest& request);

    /// Orders a publication that is not withdrawn on these of its targets, with the options of `request`.
    /// Those that cannot be reached now are taken out of `guids`, all when it is withdrawn. Calls local
    /// actions: no lock may be held.
    KelStatus OrderOn(const PublicationSummary& publication, const PublicationRequest& request,
                      KelVector<KelString>& guids);

    /// Orders what is pending on the device `guid`, which has lost its database, and on the devices below it
    /// once more. When it is the master, its file store is also offered the files of all publications. False
    /// when that failed: logged. Calls local actions: no lock may be held, here and in the next.
    bool Repeat(const KelString& guid);

    /// The same for the master, whose databases may have been restored from a backup, for each publication
    /// once in this process. A publication that was ordered again is left to a later call until as much time
    /// has passed since then as before, a day at most: an agent that is restarted in a loop makes few orders.
    /// True when nothing failed.
    bool RepeatOnceForMaster();

  private:
    bool RepeatAll(const KelString& guid, const std::function<bool(const PublicationSummary&)>& isDue);
    bool RepeatPublication(const PublicationSummary& publication, const KelVector<Device>& devices,
                           const KelString& guid);
    bool IsDueOnce(const PublicationSummary& publication);

    /// The targets of a publication.
    struct Plan {
        KelString id;
        KelVector<Device> devices;       ///< of the tree at this moment, the master first
        KelVector<std::size_t> targets;  ///< their indexes in `devices`, each once; all can be reached
        std::size_t leftOut = 0;         ///< devices that "all" could not reach
    };

    KelResult<Plan> MakePlan(const PublicationRequest& request);
    KelStatus Offer(const PublicationRequest& request, const PublicationSummary& publication,
                    const Plan& plan);
    /// Offers the file to the store of the master. True when the store has it already and it stays as it is.
    KelResult<bool> OfferFile(const PublicationRequest& request, const PublicationSummary& publication,
                              const KelVector<KelString>& isFor, const KelContainer* devicePath);
    /// Has the targets request the file of a publication.
    KelStatus Order(const PublicationRequest& request, const PublicationSummary& publication,
                    const KelVector<KelString>& isFor, KelContainer devicePath);
    /// Adds what devices know a publication by to the FileInfo of its file or of an order for it: identifier
    /// and time, and in a tree with keys what the master signs. `isFor`: GUIDs, or none for every device.
    KelStatus SetPublication(const PublicationSummary& publication, const KelVector<KelString>& isFor,
                             KelContainer& info);
    KelResult<KelString> Sha256Of(const PublicationSummary& publication);
    PackageFile PlaceOf(const PublicationSummary& publication) const;

    const KelDebug& log_;
    DeviceDirectory& directory_;
    DeviceGroups& groups_;
    PublicationStore& publications_;
    std::shared_mutex& packages_;
    KelString folder_;
    KelMutex mutex_;
    std::unordered_set<KelString> done_
        KEL_GUARDED_BY(mutex_);  ///< published or repeated for all by this process
};
