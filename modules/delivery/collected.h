#pragma once

#include <cstdint>

#include "kel/result.h"
#include "kel/types.h"
#include "modules/delivery/file_place.h"
#include "modules/delivery/received_file.h"

/// A file that came up from a device below.
struct CollectedFile {
    KelString device;  ///< GUID, or "unknown"
    FileKey key;       ///< without the checksum
    KelString path;
    std::int64_t size = 0;  ///< bytes
};

/// The files that the master collects from the devices below, as "<root>/<device
/// GUID>/<type>/<label>/<name>". Set up once; then, but for PutLater and PutAll, from any thread.
class CollectedFiles {
  public:
    /// The entry of the ini file that names the root.
    static IniSetting Setting();

    /// A relative root is relative to `dataFolder`. Copies are made in `workFolder`, where possible; what a
    /// killed process left there is removed. Before the other calls.
    void Configure(const IniFile& ini, const KelString& dataFolder, const KelString& workFolder);

    /// False for the types that other modules receive from the devices.
    static bool IsToBeCollected(const KelString& type);

    /// The GUID in `device`, a device URL ("host:port/GUID") or a GUID; "unknown" when it holds none.
    static KelString DeviceFolder(const KelString& device);

    /// Copies the file to its place, replacing another content atomically; on the disk when the call
    /// succeeds. True when something was copied, false when the file was there already.
    KelResult<bool> Put(const KelString& device, const ReceivedFile& file) const;

    /// The same with several files that share one sync: each is in its place when PutAll has succeeded. One
    /// thread at a time.
    KelResult<bool> PutLater(const KelString& device, const ReceivedFile& file);
    KelStatus PutAll() { return waiting_.Place(access_); }

    /// All files, by device, type, label and name.
    KelVector<CollectedFile> List() const;

  private:
    FilePlace PlaceOf(const KelString& device, const FileKey& key) const;

    KelString root_;
    KelString workFolder_;
    PlaceAccess access_;
    PlacedTogether waiting_;
};
