#include "filestore/state/bandwidth_manager.h"

#include <charconv>
#include <ctime>
#include <limits>
#include <optional>

#include "filestore/state/file_store.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace {

/// Units of the slot values.
enum SlotType : int {
    kBitsPerSecond = 1,
    kKilobitsPerSecond = 2,
    kMegabitsPerSecond = 3,
    kFirstWithoutSlots = 4,
    kLastWithoutSlots = 6,
    kPercent = 7,
    kPerThousand = 8,
};

constexpr std::int64_t kSecondsPerHour = 3600;

std::tm TimeParts(std::int64_t time, bool utc) {
    const std::time_t seconds = time;
    std::tm parts{};
    if (utc)
        gmtime_r(&seconds, &parts);
    else
        localtime_r(&seconds, &parts);
    return parts;
}

bool HoldsSlots(int type) {
    return (type >= 1 && type <= 3) || type == kPercent || type == kPerThousand;
}

/// A decimal, "0x" hexadecimal or leading-0 octal number; nothing for anything else.
std::optional<std::uint64_t> ParseNumber(std::string_view text) {
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    } else if (text.size() > 1 && text.front() == '0') {
        base = 8;
        text.remove_prefix(1);
    }
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::uint64_t Convert(std::uint64_t number, int type) {
    if (type == kBitsPerSecond) return number / 1000;
    if (type != kMegabitsPerSecond) return number;
    const std::uint64_t most = std::numeric_limits<std::uint64_t>::max() / 1000;
    return number > most ? std::numeric_limits<std::uint64_t>::max() : number * 1000;
}

}  // namespace

std::size_t FileStoreBandwidthManager::SlotIndex(std::int64_t time, bool utc) {
    const std::tm parts = TimeParts(time, utc);
    const int weekday = parts.tm_wday % 7;
    const int day = (weekday == 0 ? 7 : weekday) - 1;
    return static_cast<std::size_t>(day * 24 + parts.tm_hour);
}

int FileStoreBandwidthManager::StartTransmission() {
    const KelLock lock(mutexSlots_);
    int frameSize = 0;
    if (fWindowDefined_ && GetRate(frameSize) == 0) return -1;
    ++iActiveTransfers_;
    if (fWindowDefined_) ShareRates();
    return iFrameSize_;
}

void FileStoreBandwidthManager::EndTransmission() {
    const KelLock lock(mutexSlots_);
    --iActiveTransfers_;
    if (fWindowDefined_) ShareRates();
}

unsigned long FileStoreBandwidthManager::GetRate(int& frameSize) {
    frameSize = iFrameSize_;
    return ulSlotRate_[SlotIndex(std::time(nullptr), fUseUTCTime_)];
}

bool FileStoreBandwidthManager::BandwidthIsLimited() {
    return fWindowDefined_;
}

int FileStoreBandwidthManager::GetFrameSize() {
    return iFrameSize_;
}

bool FileStoreBandwidthManager::IsPercentage() {
    return fPercentage_;
}

bool FileStoreBandwidthManager::IsPerThousand() {
    return fPerThousand_;
}

void FileStoreBandwidthManager::SetDirection(TransferWindowDirection_e direction) {
    eDirection_ = direction;
}

void FileStoreBandwidthManager::SetFrameSize(int bytes) {
    iFrameSize_ = bytes;
}

void FileStoreBandwidthManager::UpdateTransferWindow(KelContainer& window) {
    if (!window.Has("Slots")) {
        KelContainer call;
        call.SetInt32("Direction", eDirection_);
        if (CallLocal("TransferWindowCheckWindow", call) != kKelOk || !call.Has("Values")) {
            FileStore::debugFileStore.Detail("No transfer window.\n");
            ClearWindow();
            return;
        }
        window = call.GetContainer("Values");
    }
    const int type = window.GetInt32("SlotType");
    iSlotType_ = type;
    fUseUTCTime_ = window.GetBool("UseUTCTime");
    StringTokeniser tokens(window.GetString("Slots"), ' ');

    const KelLock lock(mutexSlots_);
    if (HoldsSlots(type)) LoadSlots(tokens, type);
    if (type >= kBitsPerSecond && type <= kPerThousand) {
        fAbsoluteRate_ = type <= kMegabitsPerSecond;
        fPercentage_ = type == kPercent;
        fPerThousand_ = type == kPerThousand;
    }
    fWindowDefined_ = true;
    ShareRates();
}

void FileStoreBandwidthManager::LoadSlots(StringTokeniser& tokens, int type) {
    KelString token;
    for (std::size_t i = 0; i < kSlotCount && tokens.GetNextToken(token); ++i) {
        const auto number = ParseNumber(token);
        if (!number)
            FileStore::debugFileStore.Warning(
                "Slot %lu of a transfer window is not a number ('%S'); the hour counts as closed\n", i,
                token);
        ulSlotValue_[i] = Convert(number.value_or(0), type);
    }
}

void FileStoreBandwidthManager::ClearWindow() {
    fWindowDefined_ = false;
}

void FileStoreBandwidthManager::CancelAllTransfers() {
    const KelLock lock(mutexSlots_);
    for (std::size_t i = 0; i < kSlotCount; ++i) {
        ulSlotValue_[i] = 0;
        ulSlotRate_[i] = 0;
    }
}

bool FileStoreBandwidthManager::TransfersAreDisabled() {
    int frameSize = 0;
    return BandwidthIsLimited() && GetRate(frameSize) == 0;
}

std::optional<FileStoreBandwidthManager::ClosedSpan> FileStoreBandwidthManager::GetClosedSpan(
    std::int64_t now) const {
    const auto isClosed = [this](std::int64_t time) {
        return ulSlotRate_[SlotIndex(time, fUseUTCTime_)] == 0;
    };
    if (!fWindowDefined_ || !isClosed(now)) return std::nullopt;
    ClosedSpan span;
    // The offset of local time from UTC may hold minutes.
    const std::tm parts = TimeParts(now, fUseUTCTime_);
    const std::int64_t hour = now - parts.tm_min * 60 - parts.tm_sec;
    for (std::size_t i = 1; i < kSlotCount && span.until == 0; ++i)
        if (const auto time = hour + static_cast<std::int64_t>(i) * kSecondsPerHour; !isClosed(time))
            span.until = time;
    for (std::size_t i = 1; i < kSlotCount && span.since == 0; ++i)
        if (const auto time = hour - static_cast<std::int64_t>(i) * kSecondsPerHour; !isClosed(time))
            span.since = time + kSecondsPerHour;
    return span;
}

void FileStoreBandwidthManager::ShareRates() {
    const auto transfers = static_cast<std::uint64_t>(iActiveTransfers_ > 0 ? iActiveTransfers_ : 0);
    const bool isShared = transfers >= 1 && !fPercentage_ && !fPerThousand_;
    for (std::size_t i = 0; i < kSlotCount; ++i) {
        const std::uint64_t value = ulSlotValue_[i];
        ulSlotRate_[i] = isShared && value >= transfers ? value / transfers : value;
    }
}
