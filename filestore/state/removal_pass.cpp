#include "filestore/state/removal_pass.h"

#include <algorithm>

#include "filestore/state/file_store.h"
#include "filestore/state/removal.h"
#include "filestore/state/store_layout.h"
#include "filestore/state/waiting_reasons.h"

namespace filestore {

namespace {

using Clock = std::chrono::steady_clock;

/// How long a piece is meant to hold the mutex: much less than other threads may wait, because the log of the
/// database is written back now and then at the end of one.
constexpr Clock::duration kHold = std::chrono::milliseconds(10);
constexpr unsigned int kLeastRows = 5;
constexpr unsigned int kMostRows = 500;

IdList IdsOf(const FileRows& files) {
    IdList ids;
    for (const FileStoreEntry& file : files)
        ids.Add(file.FileId);
    return ids;
}

IdList IdsInUse(Side side) {
    IdList ids;
    for (const std::uint64_t fileId : FilesInUse(side))
        ids.Add(fileId);
    return ids;
}

/// A piece of a pass.
class Piece {
  public:
    Piece(const RemovalPass& pass, const PassHost& host, PieceSize& targetPieces)
        : pass_(pass),
          host_(host),
          side_(pass.rule.GetSide()),
          targetPieces_(targetPieces),
          content_(side_) {}

    /// Claims what is not in use; the others go to `skipped`.
    void Claim(const FileRows& files, IdList& skipped) {
        for (const FileStoreEntry& file : files)
            (content_.Claim(file) ? claimed_ : skipped).Add(file.FileId);
    }

    /// False when the database refuses.
    bool Remove(Clock::duration& held) {
        if (claimed_.IsEmpty()) return true;
        if (pass_.hasTargets && !RemoveTargets()) return false;
        if (!RemoveRows(held)) return false;
        for (const FileStoreEntry& file : removed_) {
            Reasons().MovedOn(side_, file.FileId);
            Log(ContentPath(file, side_));
            content_.Confirm(file);
        }
        content_.RemoveContent();
        if (pass_.onRemoved) pass_.onRemoved(removed_);
        return true;
    }

    const IdList& Claimed() const { return claimed_; }
    std::size_t CountRemoved() const { return removed_.size(); }

  private:
    void Log(const KelString& path) const {
        if (pass_.isNotable)
            FileStore::debugFileStore.Print("DeleteThread: %s %S\n", pass_.text, path);
        else
            FileStore::debugFileStore.Trace("DeleteThread: %s %S\n", pass_.text, path);
    }
    bool RemoveTargets() {
        for (bool isDone = false; !isDone && !host_.isCancelled();) {
            Clock::duration held{};
            {
                const KelLock lock(FileStore::mutexDownstream);
                const auto begin = Clock::now();
                if (!DeleteSomeTargets(IdsOf(pass_.rule.Recheck(claimed_)), targetPieces_.Rows(), isDone))
                    return false;
                held = Clock::now() - begin;
            }
            if (isDone) break;
            targetPieces_.Took(held);
            host_.giveWay(held);
        }
        return !host_.isCancelled();
    }

    bool RemoveRows(Clock::duration& held) {
        const FileStoreDatabase database = FileStoreGetDatabase(side_);
        const KelLock lock(database.mutex);
        const auto begin = Clock::now();
        DBTransaction transaction(database.connection);
        if (!transaction.IsOpen()) return false;
        removed_ = pass_.rule.Recheck(claimed_);
        if ((pass_.mayHaveArrived && !RemoveArrivedFiles(removed_)) ||
            !DeleteFileRows(side_, IdsOf(removed_)) || !transaction.Commit())
            return false;
        held = Clock::now() - begin;
        return true;
    }

    const RemovalPass& pass_;
    const PassHost& host_;
    const Side side_;
    PieceSize& targetPieces_;
    ContentRemoval content_;
    IdList claimed_;
    FileRows removed_;
};

}  // namespace

void PieceSize::Took(Clock::duration held) {
    const auto fitting = static_cast<double>(rows_) * static_cast<double>(kHold.count()) /
                         static_cast<double>(std::max<Clock::duration::rep>(held.count(), 1));
    // Slowly up, because one piece may have met cached pages, but down at once.
    rows_ = std::clamp(static_cast<unsigned int>(std::min(fitting, 1.5 * rows_)), kLeastRows, kMostRows);
}

std::size_t RunPass(const RemovalPass& pass, const PassHost& host) {
    PieceSize rows, targets;
    IdList skipped = IdsInUse(pass.rule.GetSide());
    std::size_t removed = 0;
    RemovalRule::Position position;
    while (!host.isCancelled()) {
        const FileRows files = pass.rule.Select(position, skipped, rows.Rows());
        if (files.empty()) break;
        Clock::duration held{};
        Piece piece(pass, host, targets);
        piece.Claim(files, skipped);
        if (!piece.Remove(held)) break;
        removed += piece.CountRemoved();
        if (piece.CountRemoved() == 0) {  // in use, or changed since they were selected
            skipped.Append(piece.Claimed());
            continue;
        }
        rows.Took(held);
        host.giveWay(held);
    }
    return removed;
}

void RemoveOldTargets(std::int64_t before, const PassHost& host) {
    PieceSize rows;
    for (bool isDone = false; !host.isCancelled();) {
        const IdList inUse = IdsInUse(Side::Downstream);
        Clock::duration held{};
        {
            const KelLock lock(FileStore::mutexDownstream);
            const auto begin = Clock::now();
            if (!DeleteOldTargets(before, inUse, rows.Rows(), isDone) || isDone) return;
            held = Clock::now() - begin;
        }
        rows.Took(held);
        host.giveWay(held);
    }
}

}  // namespace filestore
