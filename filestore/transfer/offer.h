#pragma once

#include "filestore/db/file_store_entry.h"
#include "kel/container.h"
#include "kel/types.h"

namespace filestore {

/// What an offer (the arguments of FileStoreReceiveFile) says about the file itself. What only one kind of
/// offer needs stays in the arguments.
struct Offer {
    KelString type;
    KelString label;
    KelString name;
    KelString checksum;
    bool unconnected = false;  ///< to be kept aside until the device is connected
    bool upstream = false;     ///< travels from child to parent
    bool local = false;        ///< names a path: the content is on this device already
    bool bypass = false;
    unsigned int keepCopy = 0;   ///< bits as in FileStore::eKeepCopyMask
    unsigned int wakeOnLan = 0;  ///< 1: targets may be woken
    unsigned int priority = 100;
};

/// Reads the values above; absent ones keep their defaults. Makes up a name when there is none (asks the
/// identity module) and applies the fixed priority of some types.
Offer ReadOffer(const KelContainer& arguments);

/// True when every value that becomes part of a path or of an SQL statement is fit for it. Otherwise warns,
/// naming the value: the caller refuses the offer with 1. An empty checksum passes only in a local offer.
bool CheckOffer(const KelContainer& arguments, const Offer& offer);

/// False, with a warning, when a device other than this one names a local path (FilePath, CopyPath,
/// MovePath).
bool CheckLocalPaths(const KelContainer& arguments);

/// True when `part` can be a part of the file key; otherwise warns. `name` is what it is called in the log.
/// With `inSql`, apostrophes are refused too: the part reaches statements unescaped.
bool CheckKeyPart(const char* name, const KelString& part, bool inSql);

/// True when `text`, a device URL or another text that reaches statements unescaped, is fit for that;
/// otherwise warns.
bool CheckDeviceText(const char* name, const KelString& text);

/// True when `guid` holds letters, digits and hyphens only, so that it can stand in a statement or pattern.
bool IsPlainGuid(const KelString& guid);

/// A row of the offered file with what every kind of offer sets.
FileStoreEntry OfferedEntry(const KelString& type, const KelString& label, const KelString& name,
                            const KelString& checksum, unsigned int keepCopy, bool bypass,
                            unsigned int priority);

/// The offer's `FileInfo` as XML, empty when it holds none.
KelString FileInfoXml(const KelContainer& arguments);

}  // namespace filestore
