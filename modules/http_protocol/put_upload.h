#pragma once

#include <cstdint>
#include <string_view>

#include "kel/debug.h"
#include "kel/types.h"
#include "kelcore/file_lease.h"
#include "modules/http_protocol/alias_table.h"
#include "modules/http_protocol/unfinished_file.h"

namespace kelhttp {

/// An upload in progress, which is put in place once it is complete and synced. The operations block on the
/// disk and run one at a time, on any thread; each returns 0 or the HTTP status of the failure, which it has
/// logged.
class PutUpload {
  public:
    /// `url`: the decoded request path; `size`: bytes that will come.
    PutUpload(KelString url, AliasMatch place, std::uint64_t size, const KelDebug& log);

    /// Creates the file and reserves its space. 404 no such folder, 403 not allowed there, 507 no space, 500
    /// otherwise.
    unsigned int Begin();

    /// Appends `data`; 507 or 500.
    unsigned int Write(std::string_view data);

    /// Syncs the file, asks the subscribers of the event HttpProtocolCallbackPutCheck, puts the file in
    /// place, syncs the folder and triggers the event HttpProtocolCallbackPut. The first event has the value
    /// ContentPath, under which the content can be read while it is not in place. An upload that a subscriber
    /// refuses in the first event leaves the destination as it was. 404 refused as not expected, 422 as other
    /// content than expected, 503 when a subscriber failed in either event; 409 when the destination is a
    /// folder, 507 or 500.
    unsigned int Commit();

    /// True when Commit created the file, false when it replaced one.
    bool IsNew() const { return file_.IsNew(); }

  private:
    unsigned int Fail(const char* what);
    unsigned int Trigger(const char* event) const;

    KelString url_;
    UnfinishedFile file_;
    KelFileLease lease_;  ///< of the destination
    std::uint64_t size_;
    const KelDebug& log_;
    std::uint64_t written_ = 0;
    std::uint64_t handedOver_ = 0;  ///< bytes whose write-back has been started
};

}  // namespace kelhttp
