#pragma once

#include <span>

#include "filestore/db/file_store_entry.h"
#include "kel/container.h"

/// Files from below whose content is here: what becomes of them, and taking over many of them at the price
/// of one.
namespace filestore {

/// The status of a file that has come from below: it is handed to the consumers where there are any, else it
/// is sent on. Any thread.
const char* StatusOfArrived();

/// True for types that are not simply handed over or sent on: archives are unpacked, and who handles a
/// package depends on what it says.
bool IsArrivalSpecial(const KelString& type);

/// A file that is complete, under a temporary name below the storage folder.
struct CompleteFile {
    FileStoreEntry entry;  ///< all but FilePath and FileURL, which are set when it is taken
    KelString content;     ///< the temporary path; gone once the file is in its place
    bool isTaken = false;
};

/// Reads the row of a file from below whose offer comes together with its content. False when it has to be
/// offered by itself: it is special, or something is wrong with it, which the answer then says.
bool ReadArrived(const KelContainer& arguments, FileStoreEntry& entry);

/// Takes those of the files over that are new, with the status that their entries have: each is in its place,
/// has its row, and both are on the disk when the call returns. Files that the store knows already in some
/// way, and all when the disk is full or the disk or the database fails, are not taken: they have to be offered
/// one by one.
///
/// Many files cost two syncs of the file system (one when the contents are `synced` already) and one commit.
/// Any thread; takes mutexUpstream, so hold no other lock.
void TakeOver(std::span<CompleteFile> files, bool synced);

}  // namespace filestore
