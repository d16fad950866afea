#pragma once

#include "kel/ini_file.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/device.h"

/// Takes a path name apart: "host:port/GUID/MAC/IP/mask" with a port of 1 to 65535, an upper-case GUID and
/// dotted address and mask; no blanks, apostrophes or control characters. Sets guid, address and pathName.
KelStatus ParsePathName(const KelString& pathName, Device& device);

/// One entry of the section Devices: `key` is the GUID, `value` is "PATHNAME PARENTGUID ROLE [NAME]". A
/// device without a name is named by its host.
KelResult<Device> ParseDeviceEntry(const KelString& key, const KelString& value);

/// The devices of the section Devices of `ini`, in the order of the file. Entries that cannot be used are
/// left out, each with a text in `problems` that says why.
KelVector<Device> ReadDevices(const IniFile& ini, KelVector<KelString>& problems);

/// True for a text that can name a device: 1 to 253 bytes without control characters, apostrophes and
/// slashes.
bool IsDeviceName(const KelString& text);

/// Finds devices by GUID or name (any case) in a list that must outlive it unchanged. One thread at a time.
class DeviceIndex {
  public:
    explicit DeviceIndex(const KelVector<Device>& devices);

    /// The index in the list of the device with this GUID or name. Unknown and ambiguous names are errors
    /// that name them.
    KelResult<std::size_t> Find(const KelString& guidOrName) const;

  private:
    KelHash<KelString, std::size_t> guids_;
    KelHash<KelString, KelVector<std::size_t>> names_;
};
