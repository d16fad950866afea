#include "filestore/up/receive_contents.h"

#include <optional>

#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/up/arrived_files.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/file_content.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/metrics/transfer_counters.h"

namespace filestore {

namespace {

/// The offers of a call, without the contents, each with the origin of the call: what an offer says about its
/// origin itself counts for nothing.
KelVector<KelContainer> ReadOffers(const KelContainer& arguments, std::uint32_t count) {
    KelVector<KelContainer> offers(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        offers[i] = arguments.GetContainer(kValueFiles, i);
        offers[i].Remove(kValueContent);
        offers[i].Remove(kActionRequestInfo);
        if (ActionIsFromOutside(arguments)) SetCallOrigin(CallOriginOf(arguments), offers[i]);
    }
    return offers;
}

bool WriteContent(const KelString& content, KelString& path) {
    const UniqueFd file = FileCreateTemp(StoreWorkFolder(), path);
    return file && FileWriteAll(file.Get(), content);
}

/// The file of an offer that can be taken with its content.
std::optional<CompleteFile> ReadFile(const KelContainer& offer, const KelString& content) {
    CompleteFile file;
    if (!ReadArrived(offer, file.entry) || file.entry.FileSize != static_cast<std::int64_t>(content.size()) ||
        !IsEqualTo(TextMd5(content), file.entry.FileChecksum, false) || !WriteContent(content, file.content))
        return std::nullopt;
    return file;
}

KelContainer AnswerTaken(const CompleteFile& file) {
    KelTransfers(KelDirection::Up, KelFlow::In, KelTransport::Http)
        .AddFile(static_cast<std::uint64_t>(file.entry.FileSize));
    KelContainer answer;
    answer.SetInt32(kValueResult, kKelOk);
    answer.SetString(kValueFileUrl, file.entry.FileURL);
    answer.SetBool(kValueContentHeld, true);
    return answer;
}

KelContainer OfferSingly(KelContainer offer) {
    const unsigned int result = FileStore::ActionHandler_FileStoreReceiveFile(&offer);
    offer.Remove(kActionRequestInfo);
    offer.SetInt32(kValueResult, static_cast<std::int32_t>(result));
    return offer;
}

}  // namespace

unsigned int ReceiveContents(KelContainer& arguments) {
    const std::uint32_t count = arguments.Has(kValueFiles) ? arguments.Count(kValueFiles) : 0;
    if (count > kMostContents || !PathCreate(StoreWorkFolder())) {
        arguments.Clear();
        return count > kMostContents ? kKelErrorBadInput : kKelErrorNotAvailable;
    }
    const KelVector<KelContainer> offers = ReadOffers(arguments, count);
    KelVector<CompleteFile> files;
    KelVector<std::uint32_t> indexes;  // of `files`
    for (std::uint32_t i = 0; i < count; ++i) {
        const KelString content = arguments.GetContainer(kValueFiles, i).GetString(kValueContent);
        auto file = ReadFile(offers[i], content);
        if (!file) continue;
        files.push_back(std::move(*file));
        indexes.push_back(i);
    }
    arguments.Clear();
    if (!files.empty()) TakeOver(files, false);
    std::size_t next = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const CompleteFile* const file = next < files.size() && indexes[next] == i ? &files[next++] : nullptr;
        if (file != nullptr && !file->isTaken) FileDelete(file->content);
        const bool isTaken = file != nullptr && file->isTaken;
        arguments.SetContainer(kValueFiles, isTaken ? AnswerTaken(*file) : OfferSingly(offers[i]), i);
    }
    return kKelOk;
}

}  // namespace filestore

unsigned int FileStore::ActionHandler_FileStoreReceiveContents(KelContainer* arguments) {
    return filestore::ReceiveContents(*arguments);
}
