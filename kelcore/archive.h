#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "kel/types.h"

class Deflater;
struct zip;

/// Results of archive operations.
inline constexpr unsigned int kArchiveDone = 0;
inline constexpr unsigned int kArchiveBadInput =
    1;                                             ///< an unusable kind, level or entry name, or nothing open
inline constexpr unsigned int kArchiveNoFile = 2;  ///< the archive or a source is missing or cannot be read
inline constexpr unsigned int kArchiveDamaged = 3;     ///< the existing file is no sound archive
inline constexpr unsigned int kArchiveHasEntry = 4;    ///< there is an entry of that name already
inline constexpr unsigned int kArchiveNotWritten = 5;  ///< the archive could not be written or synced
inline constexpr unsigned int kArchiveCancelled = 6;   ///< a progress callback asked to stop

inline constexpr int kArchiveZip = 1;  ///< the kind of archive: ZIP with Zip64 (ISO/IEC 21320-1)

/// The names of the entries of the archive at `path`, in their order; nothing when it cannot be read. From
/// any thread.
std::optional<KelVector<KelString>> ListArchiveEntries(const KelString& path);

/// Writes an archive file, new or existing. Entries come in the order in which they were added, behind those
/// that the archive had. Until Close returns kArchiveDone the file at the archive's path is as it was; an
/// object that ends without Close leaves it so. One thread at a time.
class GenericArchive {
  public:
    /// Receives the share that is done (0 to 1) while Close works; returning false stops it.
    using Progress = std::function<bool(double done)>;

    explicit GenericArchive(int kind);
    ~GenericArchive();
    GenericArchive(const GenericArchive&) = delete;
    GenericArchive& operator=(const GenericArchive&) = delete;

    /// Begins a new archive that replaces what is at `path`; its folder exists.
    unsigned int Create(const KelString& path);

    /// Opens the archive at `path` to add to it.
    unsigned int Open(const KelString& path);

    bool IsOpen() const { return zip_ != nullptr; }

    /// Adds the file `sourcePath` as `entryName`, a relative path with "/" between its elements, deflated at
    /// `level` (1 fast to 9 small; 0: stored). A large file that would all but vanish is stored too, because
    /// receivers refuse such an entry as a decompression bomb. The file is read by Close and must stay until
    /// then. Close reports to the `progress` given last.
    unsigned int AddEntry(const KelString& entryName, const KelString& sourcePath, int level,
                          Progress progress = {});

    /// Writes everything, syncs it, and puts it in place. Nothing is left open, whatever the result. An
    /// archive without entries is not written (kArchiveBadInput).
    unsigned int Close();

    /// What went wrong in the last operation, for the log.
    const KelString& GetErrorText() const { return errorText_; }

  private:
    struct Discard {
        void operator()(zip* archive) const;
    };

    const std::shared_ptr<Deflater>& DeflaterOf(int level);
    unsigned int Begin(const KelString& path);
    unsigned int OpenWork(int flags);
    unsigned int WriteOut();
    void Abandon();
    unsigned int Fail(unsigned int result, KelString text);

    int kind_;
    KelString path_;
    KelString workPath_;  ///< beside path_; takes its place at the end
    std::unique_ptr<zip, Discard> zip_;
    std::shared_ptr<Deflater> deflater_;  ///< of the last level; entries that wait for Close share it
    bool changed_ = false;
    Progress progress_;
    KelString errorText_;
};
