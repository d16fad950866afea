#pragma once

#include <cstdint>
#include <string_view>

#include "kel/debug.h"
#include "kel/types.h"
#include "kel/unique_fd.h"
#include "modules/http_protocol/alias_table.h"

namespace kelhttp {

/// One uploaded file on its way to the disk: a file without a name in the destination's folder that is put in
/// place once it is complete and synced. Destroyed before that, or with its process, it leaves nothing
/// behind. Where the file system knows no files without names, a hidden one stands in; what a process that
/// was killed leaves of those is removed by a later upload to the folder. Its operations block on the disk
/// and run one at a time, on any thread; each gives 0 or the HTTP status of the failure, which it has logged.
class PutUpload {
  public:
    /// `url`: the decoded request path; `size`: bytes that will come.
    PutUpload(KelString url, AliasMatch place, std::uint64_t size, const KelDebug& log);
    ~PutUpload();
    PutUpload(const PutUpload&) = delete;
    PutUpload& operator=(const PutUpload&) = delete;

    /// Makes the file and reserves its space. 404 no such folder, 403 not allowed there, 507 no
    /// space, 500 otherwise.
    unsigned int Begin();

    /// Appends, and has the disk begin with it; 507 or 500.
    unsigned int Write(std::string_view data);

    /// Syncs, puts in place, syncs the folder and triggers the event HttpProtocolCallbackPut. 409 when
    /// the destination is a folder, 507 or 500.
    unsigned int Commit();

    /// True when Commit made a file that was not there before.
    bool IsNew() const { return isNew_; }

  private:
    unsigned int MakeHiddenFile();
    void RemoveLeftovers() const;
    bool PutInPlace();
    unsigned int Fail(const char* what);
    void Trigger() const;

    KelString url_;
    AliasMatch place_;
    std::uint64_t size_;
    const KelDebug& log_;
    UniqueFd folder_;
    UniqueFd file_;
    KelString name_;
    KelString hiddenName_;  ///< of the file while it is not in place; empty when it has none
    std::uint64_t written_ = 0;
    std::uint64_t handedOver_ = 0;  ///< bytes whose way to the disk has been started
    bool isNew_ = false;
};

}  // namespace kelhttp
