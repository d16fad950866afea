#include "filestore/down/multicast_calls.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

#include "filestore/down/announcement_calls.h"
#include "filestore/state/file_store.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/container.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

constexpr const char* kStartListen = "HttpProtocolMulticastStartListen";

// Seconds. A device that has all blocks answers once it has verified them.
constexpr int kVerifyTimeout = 60;

unsigned int Call(const KelString& deviceUrl, const char* action, KelContainer& values,
                  int timeout = kCallTimeout) {
    const unsigned int error =
        ActionDbInvokeContainer(nullptr, deviceUrl, action, values, 0, kConnectTimeout, timeout, nullptr);
    if (error != kKelOk)
        FileStore::debugFileStore.Detail("MulticastThread: %s on %S: %S\n", action, PeerName(deviceUrl),
                                         KelErrorText(error));
    return error;
}

/// Where and how the file travels.
KelContainer RouteOf(const FileStoreEntry& file) {
    KelContainer values;
    values.SetString(kValueMulticastAddress, file.MulticastAddress);
    values.SetInt32(kValueMulticastPort, static_cast<std::int32_t>(file.MulticastPort));
    values.SetInt32(kValueMulticastBlockSize, static_cast<std::int32_t>(file.MulticastBlockSize));
    values.SetInt64(kValueFileSize, file.FileSize);
    return values;
}

std::optional<std::uint64_t> ParseNumber(std::string_view text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

}  // namespace

MissingBlocks::MissingBlocks(const FileStoreEntry& file) {
    const auto size = static_cast<std::uint64_t>(std::max<std::int64_t>(file.FileSize, 0));
    const std::uint64_t block = std::max<std::uint32_t>(file.MulticastBlockSize, 1);
    isMissing_.resize(size / block + (size % block != 0 ? 1 : 0));
}

bool MissingBlocks::Add(const KelString& text) {
    const auto hyphen = text.find('-');
    const auto first = ParseNumber(std::string_view(text).substr(0, hyphen));
    const auto last =
        hyphen == KelString::npos ? first : ParseNumber(std::string_view(text).substr(hyphen + 1));
    if (!first || !last || *first > *last || *last >= isMissing_.size()) return false;
    std::fill(isMissing_.begin() + static_cast<std::ptrdiff_t>(*first),
              isMissing_.begin() + static_cast<std::ptrdiff_t>(*last) + 1, true);
    return true;
}

void MissingBlocks::Add(const MissingBlocks& other) {
    for (std::size_t i = 0; i < std::min(isMissing_.size(), other.isMissing_.size()); ++i)
        if (other.isMissing_[i]) isMissing_[i] = true;
}

std::size_t MissingBlocks::Count() const {
    return static_cast<std::size_t>(std::count(isMissing_.begin(), isMissing_.end(), true));
}

KelVector<std::uint32_t> MissingBlocks::Numbers() const {
    KelVector<std::uint32_t> numbers;
    for (std::size_t i = 0; i < isMissing_.size(); ++i)
        if (isMissing_[i]) numbers.push_back(static_cast<std::uint32_t>(i));
    return numbers;
}

unsigned int ListenHere(const FileStoreEntry& file) {
    KelContainer call = RouteOf(file);
    call.SetString(kValueFileUrl, file.FileURL);
    call.SetString("LocalPath", file.FilePath);
    call.SetString(kValueFileChecksum, file.FileChecksum);
    return CallLocal(kStartListen, call);
}

Reception AskForReception(const KelString& deviceUrl, const FileStoreEntry& file, bool differential) {
    Reception reception{.missing = MissingBlocks(file)};
    KelContainer values;
    values.SetString(kValueMulticastAddress, file.MulticastAddress);
    values.SetInt32(kValueMulticastPort, static_cast<std::int32_t>(file.MulticastPort));
    values.SetBool("MulticastDifferencialRetry", differential);
    reception.error = Call(deviceUrl, "HttpProtocolMulticastIsCompleted", values, kVerifyTimeout);
    if (reception.error != kKelOk) return reception;
    if (values.GetBool("IsCompleted")) {
        reception.state = Reception::State::Completed;
        return reception;
    }
    if (values.GetBool("CommunicationFailed")) return reception;
    reception.state =
        values.GetBool("RestartNeeded") ? Reception::State::Spoilt : Reception::State::Incomplete;
    if (!differential) return reception;
    for (std::size_t i = 0; values.Has(std::to_string(i)); ++i) {
        const KelString named = values.GetString(std::to_string(i));
        if (reception.missing.Add(named)) continue;
        FileStore::debugFileStore.Warning("MulticastThread: %S names no blocks of the file: '%S'\n",
                                          PeerName(deviceUrl), named);
        break;
    }
    return reception;
}

bool ListenAgain(const KelString& deviceUrl, const FileStoreEntry& file) {
    KelContainer values = RouteOf(file);
    return Call(deviceUrl, kStartListen, values) == kKelOk;
}

void StopListening(const KelString& deviceUrl, const KelString& address) {
    KelContainer values;
    values.SetString(kValueMulticastAddress, address);
    Call(deviceUrl, "HttpProtocolMulticastStopListen", values);
}

void ResetReception(const KelString& deviceUrl, const KelString& url) {
    KelContainer values;
    values.SetString(kValueFileUrl, url);
    Call(deviceUrl, "FileStoreResetMulticastStatus", values);
}

}  // namespace filestore
