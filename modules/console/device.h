#pragma once

#include <cstdint>

#include "kel/ini_file.h"
#include "kel/result.h"
#include "kel/text.h"
#include "kel/types.h"

/// A device sends its identity once a day: one that has not for so many seconds is silent or was away.
inline constexpr std::int64_t kSilentSeconds = std::int64_t{26} * 3600;

/// A device of the tree.
struct Device {
    KelString guid;
    KelString name;
    KelString role;        ///< "master", "relay" or "client"
    KelString address;     ///< host:port
    KelString parentGuid;  ///< empty for the master
    KelString pathName;    ///< host:port/GUID/MAC/IP/mask
    KelString version;     ///< of its program; empty: unknown
    // When the device was first and last heard from, seconds since the epoch by the master's clock; 0: never.
    std::int64_t firstSeen = 0;
    std::int64_t lastSeen = 0;
};

/// Parses a path name, "host:port/GUID/MAC/IP/mask", into `device`: guid, address and pathName. The port must
/// be 1 to 65535, the GUID upper-case, address and mask dotted; blanks, apostrophes and control characters
/// are refused.
KelStatus ParsePathName(const KelString& pathName, Device& device);

/// Parses an entry of the ini section Devices: `key` is the GUID, `value` is "PATHNAME PARENTGUID ROLE
/// [NAME]". Without a name the device is named after its host.
KelResult<Device> ParseDeviceEntry(const KelString& key, const KelString& value);

/// The devices of the section Devices of `ini`, in the order of the file. Unusable entries are left out, and
/// for each a text that says why is added to `problems`.
KelVector<Device> ReadDevices(const IniFile& ini, KelVector<KelString>& problems);

/// True for a text that can name a device: 1 to 253 bytes without control characters, apostrophes and
/// slashes.
bool IsDeviceName(const KelString& text);

/// Finds devices by GUID or name (in any case) in a list that must outlive the index unchanged. One thread at
/// a time.
class DeviceIndex {
  public:
    explicit DeviceIndex(const KelVector<Device>& devices);

    /// The index in the list of the device with this GUID or name. An unknown or ambiguous name is an error
    /// that names it.
    KelResult<std::size_t> Find(const KelString& guidOrName) const;

    /// True when at least one device has this name.
    bool HasName(const KelString& name) const { return names_.contains(ToLowerText(name)); }

  private:
    KelHash<KelString, std::size_t> guids_;
    KelHash<KelString, KelVector<std::size_t>> names_;
};
