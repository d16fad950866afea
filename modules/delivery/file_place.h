#pragma once

#include <set>

#include "kel/ini_file.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kel/unique_fd.h"
#include "kelcore/ini_settings.h"

// Putting files where other programs of the device find them. These may be able to write in the same folders,
// while the agent has all rights: no link beneath the configured folder is followed.

/// Where a file is to be. `root` is a folder that the configuration names, itself perhaps a link; `path` is
/// made of the parts of a file key.
struct FilePlace {
    KelString root;
    KelString path;
    std::size_t nameLevels = 1;  ///< elements of the path that are the name

    KelString Whole() const { return root + "/" + path; }
};

/// Who may read the files and enter the folders that are made for them.
struct PlaceAccess {
    unsigned int fileMode = 0644;
    unsigned int folderMode = 0755;

    /// The entry of the ini file.
    static const IniSetting& Setting();
    static PlaceAccess Read(const IniFile& ini);
};

/// Opens the file for reading; nothing when it is absent, no regular file, or behind a link.
UniqueFd OpenPlaced(const FilePlace& place);

/// True when the file is there and its content has this MD5 (in any case), or, when that is given, this
/// SHA-256. Any thread, concurrently, like the others.
bool HoldsContent(const FilePlace& place, const KelString& checksum, const KelString& sha256 = {});

/// What keeps the place from being used for good: a link where its path needs a folder, or, in its name, a
/// file where that needs a folder or a folder in its own place. Empty when nothing does. (A file in place of
/// the folders above is a fault of the configuration, which may be put right.)
KelString ObstacleTo(const FilePlace& place);

/// Copies `source` to its place, making the folders and replacing another content atomically; on the disk
/// when the call succeeds. The copy is made in `workFolder`, or beside its place when that is empty. With
/// `sha256`, a copy with another digest is not put in place: kKelErrorBadInput.
KelStatus PlaceCopy(const KelString& source, const FilePlace& place, const PlaceAccess& access,
                    const KelString& workFolder = {}, const KelString& sha256 = {});

/// Copies that are put in place together, at the price of one sync. One thread at a time.
class PlacedTogether {
  public:
    PlacedTogether() = default;
    ~PlacedTogether();
    PlacedTogether(const PlacedTogether&) = delete;
    PlacedTogether& operator=(const PlacedTogether&) = delete;

    /// Copies `source` to a file in `workFolder`, which Place will move to `place`.
    KelStatus Add(const KelString& source, const FilePlace& place, const KelString& workFolder);

    /// True when a copy for this place waits for Place.
    bool Has(const FilePlace& place) const { return paths_.contains(place.Whole()); }

    /// Puts all copies in their places, in the order in which they were added, as PlaceCopy does: on the disk
    /// when the call succeeds. After a failure the copies that are not in place are gone.
    KelStatus Place(const PlaceAccess& access);

  private:
    struct Copy {
        KelString path;
        FilePlace place;
    };
    bool SyncCopies() const;
    KelStatus MoveAll(const PlaceAccess& access);
    void Drop();

    KelVector<Copy> copies_;
    std::set<KelString> paths_;  ///< of their places
};
