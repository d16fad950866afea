#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "modules/console/device_directory.h"
#include "modules/console/device_groups.h"

/// What publishing files would do, without doing any of it. Any thread.
class Previewer {
  public:
    Previewer(DeviceDirectory& directory, DeviceGroups& groups) : directory_(directory), groups_(groups) {}

    /// Takes FilePath[i], FileName[i], FileType, FileLabel, Device[i] and Stage[i] as ConsolePublish does.
    /// The result:
    /// - PreviewFiles[i]{FileName, FileSize (int64, bytes), FileChecksum, Held (bool: the master's store has
    /// this
    ///   content under this key, so that the targets would get orders)}
    /// - Targets[i]{GUID, Name, Stage (int32), Via ("relay1 > relay12", from the master down)}
    /// - Links[i]{From, To (names), FromGuid, ToGuid, Targets (int32: behind it), Bytes (int64: of the files,
    ///   each of which goes over a link once, however many targets are behind it)}, parents before children
    /// - LeftOut (int32)
    /// Links carry fewer bytes than that for files that are held and that devices below hold too. What
    /// ConsolePublish would refuse is an error. Reads and hashes the files; calls local actions: no lock may
    /// be held.
    KelResult<KelContainer> Preview(const KelContainer& arguments);

  private:
    DeviceDirectory& directory_;
    DeviceGroups& groups_;
};
