#pragma once

#include "filestore/db/file_store_entry.h"
#include "kel/container.h"
#include "kelcore/file_key.h"

namespace filestore {

/// What an offer (the arguments of FileStoreReceiveFile) says about the file itself, ready for use. What only
/// one kind of offer needs stays in the arguments.
struct Offer {
    FileKey key;  ///< the checksum may be empty while the content is local: the receiver computes it
    bool unconnected = false;  ///< to be kept aside until the device is connected
    bool upstream = false;     ///< travels from child to parent
    bool local = false;        ///< names a path: the content is on this device already
    bool bypass = false;
    bool repeated = false;       ///< made again after a device has lost its database
    unsigned int keepCopy = 0;   ///< bits as in FileStore::eKeepCopyMask
    unsigned int wakeOnLan = 0;  ///< 1: targets may be woken
    unsigned int priority = 100;

    /// A row of the offered file with what every kind of offer sets.
    FileStoreEntry ToEntry() const;
};

/// Reads the values above; absent ones keep their defaults. Makes up a name when there is none (asks the
/// identity module) and applies the fixed priority of some types.
Offer ReadOffer(const KelContainer& arguments);

/// True when every value that becomes part of a path or of a statement is fit for it. Otherwise warns, naming
/// the value: the caller refuses the offer with kKelErrorBadInput. An empty checksum passes only in a local
/// offer.
bool CheckOffer(const KelContainer& arguments, const Offer& offer);

/// The offer's `FileInfo` as XML, empty when it holds none.
KelString FileInfoXml(const KelContainer& arguments);

}  // namespace filestore
