#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>

#include "filestore/exchange/http_transfer.h"
#include "kelcore/http/message.h"

namespace filestore {

/// Sends files to the parent, and after an interruption only what the parent does not hold yet. The parent is
/// asked for that (HEAD) when an earlier try of the file has failed, and for what was under way when the
/// process was started: the first try costs no question. One thread at a time.
class ResumedUploads {
  public:
    /// Puts the content at `path` under the file's URL. Results of HttpTransfer::Run. `sent`: see
    /// HttpFileMessage::SetProgress.
    unsigned int Put(HttpTransfer& transfer, const FileStoreEntry& entry, const KelString& path,
                     const std::shared_ptr<std::atomic<std::uint64_t>>& sent, HttpMessage& answer);

  private:
    bool MayBeHeldInPart(const FileStoreEntry& entry);
    void Note(const FileStoreEntry& entry, unsigned int result, unsigned int status);

    bool hasStarted_ = false;
    std::set<std::uint64_t> interrupted_;  ///< FileIds
};

}  // namespace filestore
