#pragma once

#include <cstdint>
#include <optional>

#include "kel/container.h"
#include "kel/types.h"
#include "kelcore/file_key.h"

/// A file as it is offered, announced or handed over: the arguments of FileStoreReceiveFile and of the file
/// store's events. Values that are not set, and an empty checksum, are not written, and absent ones stay
/// unset: each message holds what its kind needs and no more.
struct FileOffer {
    FileKey key;
    std::optional<std::int64_t> size;  ///< bytes
    std::optional<KelContainer> info;
    std::optional<KelString> url;
    std::optional<bool> upstream;
    std::optional<std::int32_t> priority;
    std::optional<bool> bypass;
    std::optional<bool> wakeOnLan;
    std::optional<std::int32_t> keepCopy;  ///< bits: 1 master, 2 relay, 4 client
    std::optional<KelString> sourceDevice;
    std::optional<KelString> firstRelay;
    std::optional<KelContainer> devicePath;
    std::optional<KelString> transportMode;
    std::optional<bool> repeated;  ///< perhaps not for the first time: who has the file keeps it

    // Where the content lies on this device: one of them at most.
    std::optional<KelString> movePath;
    std::optional<KelString> copyPath;
    std::optional<KelString> filePath;

    static FileOffer Read(const KelContainer& values);
    void Write(KelContainer& values) const;
    /// The same into a container of its own, ready for a call.
    KelContainer ToContainer() const;
};
