#include "filestore/up/upload_senders.h"

#include "kel/mutex.h"
#include "kelcore/call_origin.h"

namespace filestore {

namespace {

/// More are not remembered. An entry takes about 300 bytes.
constexpr std::size_t kMostUploads = 50'000;

struct Senders {
    KelMutex mutex;
    KelHash<KelString, KelString> byUrl KEL_GUARDED_BY(mutex);
};

Senders& Known() {
    static Senders known;
    return known;
}

/// What tells callers apart: the device that a certificate proves, else the address. Empty for this device.
KelString NameOf(const KelContainer& arguments) {
    const KelCallOrigin origin = CallOriginOf(arguments);
    return origin.deviceGuid.empty() ? origin.address : origin.deviceGuid;
}

}  // namespace

void NoteUploadSender(const KelString& url, const KelContainer& arguments) {
    const KelLock lock(Known().mutex);
    if (Known().byUrl.size() >= kMostUploads) Known().byUrl.clear();
    Known().byUrl[url] = NameOf(arguments);
}

void ForgetUploadSender(const KelString& url) {
    const KelLock lock(Known().mutex);
    Known().byUrl.erase(url);
}

std::optional<bool> IsUploadSender(const KelString& url, const KelContainer& arguments) {
    const KelString name = NameOf(arguments);
    if (name.empty()) return true;
    const KelLock lock(Known().mutex);
    const auto sender = Known().byUrl.find(url);
    if (sender == Known().byUrl.end()) return std::nullopt;
    return sender->second == name;
}

}  // namespace filestore
