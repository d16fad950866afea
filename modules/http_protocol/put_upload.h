#pragma once

#include <cstdint>
#include <string_view>

#include "kel/debug.h"
#include "kel/types.h"
#include "kel/unique_fd.h"
#include "modules/http_protocol/alias_table.h"

namespace kelhttp {

/// One uploaded file on its way to the disk: a temporary file beside the destination that replaces it once it
/// is complete and synced. Destroyed before that, it leaves nothing behind. Its operations block on the disk
/// and run one at a time, on any thread; each gives 0 or the HTTP status of the failure, which it has logged.
class PutUpload {
  public:
    /// `url`: the decoded request path; `size`: bytes that will come.
    PutUpload(KelString url, AliasMatch place, std::uint64_t size, const KelDebug& log);
    ~PutUpload();
    PutUpload(const PutUpload&) = delete;
    PutUpload& operator=(const PutUpload&) = delete;

    /// Makes the temporary file and reserves its space. 404 no such folder, 403 not allowed there, 507 no
    /// space, 500 otherwise.
    unsigned int Begin();

    /// Appends; 507 or 500.
    unsigned int Write(std::string_view data);

    /// Syncs, renames into place, syncs the folder and triggers the event HttpProtocolCallbackPut. 409 when
    /// the destination is a folder, 507 or 500.
    unsigned int Commit();

    /// True when Commit made a file that was not there before.
    bool IsNew() const { return isNew_; }

  private:
    unsigned int Fail(const char* what);
    void Trigger() const;

    KelString url_;
    AliasMatch place_;
    std::uint64_t size_;
    const KelDebug& log_;
    UniqueFd folder_;
    UniqueFd file_;
    KelString name_;
    KelString temporaryName_;  ///< empty once renamed
    bool isNew_ = false;
};

}  // namespace kelhttp
