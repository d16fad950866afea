#pragma once

#include <cstdint>
#include <string_view>

#include "kel/debug.h"
#include "kel/types.h"
#include "kelcore/call_origin.h"
#include "kelcore/file_lease.h"
#include "modules/http_protocol/alias_table.h"
#include "modules/http_protocol/unfinished_file.h"

namespace kelhttp {

/// An upload in progress, which is put in place once it is complete and synced. The operations block on the
/// disk and run one at a time, on any thread; each returns 0 or the HTTP status of the failure, which it has
/// logged.
///
/// What has come of an interrupted upload is kept, for its sender alone, when the upload has more than
/// kLeastKept bytes and a subscriber of the event HttpProtocolCallbackPutBegin expects it.
class PutUpload {
  public:
    /// Bytes; less is sent again as fast as it is resumed.
    static constexpr std::uint64_t kLeastKept = 64 << 10;

    struct Request {
        KelString url;            ///< the decoded request path
        KelString peer;           ///< the sender: the GUID that a certificate proves, else the address
        std::uint64_t first = 0;  ///< where the body belongs in the file; what stands before it came earlier
        std::uint64_t size = 0;   ///< of the whole file, in bytes
        KelPeer sender = {};      ///< whose origin goes along with the events
    };
    PutUpload(Request request, AliasMatch place, const KelDebug& log);

    /// Creates the file, or opens what was kept of it, and reserves its space. 404 no such folder or not
    /// expected, 422 of another size than expected, 403 not allowed there, 409 nothing kept up to the
    /// position of the body or in use, 507 no space, 503 when a subscriber failed, 500 otherwise.
    unsigned int Begin();

    /// Finds out for HEAD how much is kept of the upload; 404 when nothing is, 503 when it is in use.
    unsigned int FindKept();
    std::uint64_t KeptBytes() const { return written_; }

    /// Appends `data`; 507 or 500.
    unsigned int Write(std::string_view data);

    /// Appends what has come of an upload that breaks off.
    void WriteLast(std::string_view data) {
        if (file_.IsPart()) Write(data);
    }

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
    unsigned int TriggerBegin();
    unsigned int LogRefusal(const char* event, unsigned int answer) const;

    const Request request_;
    UnfinishedFile file_;
    KelFileLease lease_;  ///< of the destination
    const KelDebug& log_;
    bool isKeepable_ = false;
    std::uint64_t written_ = 0;     ///< bytes of the whole file
    std::uint64_t handedOver_ = 0;  ///< bytes whose write-back has been started
};

}  // namespace kelhttp
