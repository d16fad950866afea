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

int FileStoreBandwidthManager::StartTransmission() {
    const KelLock lock(mutexSlots);
    int frameSize = 0;
    if (fWindowDefined && GetRate(frameSize) == 0) return -1;
    ++iActiveTransfers;
    if (fWindowDefined) ShareRates();
    return iFrameSize;
}

void FileStoreBandwidthManager::EndTransmission() {
    const KelLock lock(mutexSlots);
    --iActiveTransfers;
    if (fWindowDefined) ShareRates();
}

unsigned long FileStoreBandwidthManager::GetRate(int& frameSize) {
    frameSize = iFrameSize;
    return ulSlotRate[WeekHour(std::time(nullptr), fUseUTCTime)];
}

bool FileStoreBandwidthManager::BandwidthIsLimited() {
    return fWindowDefined;
}

int FileStoreBandwidthManager::GetFrameSize() {
    return iFrameSize;
}

bool FileStoreBandwidthManager::IsPercentage() {
    return fPercentage;
}

bool FileStoreBandwidthManager::IsPerThousand() {
    return fPerThousand;
}

void FileStoreBandwidthManager::SetDirection(TransferWindowDirection_e direction) {
    eDirection = direction;
}

void FileStoreBandwidthManager::SetFrameSize(int bytes) {
    iFrameSize = bytes;
}

void FileStoreBandwidthManager::UpdateTransferWindow(KelContainer& window) {
    if (!window.Has("Slots")) {
        KelContainer call;
        call.SetInt32("Direction", eDirection);
        if (CallLocal("TransferWindowCheckWindow", call) != kKelOk || !call.Has("Values")) {
            FileStore::debugFileStore.Detail("No transfer window.\n");
            ClearWindow();
            return;
        }
        window = call.GetContainer("Values");
    }
    const int type = window.GetInt32("SlotType");
    iSlotType = type;
    fUseUTCTime = window.GetBool("UseUTCTime");
    StringTokeniser tokens(window.GetString("Slots"), ' ');

    const KelLock lock(mutexSlots);
    if (HoldsSlots(type)) LoadSlots(tokens, type);
    if (type >= kBitsPerSecond && type <= kPerThousand) {
        fAbsoluteRate = type <= kMegabitsPerSecond;
        fPercentage = type == kPercent;
        fPerThousand = type == kPerThousand;
    }
    fWindowDefined = true;
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
        ulSlotValue[i] = Convert(number.value_or(0), type);
    }
}

void FileStoreBandwidthManager::ClearWindow() {
    fWindowDefined = false;
}

void FileStoreBandwidthManager::CancelAllTransfers() {
    const KelLock lock(mutexSlots);
    for (std::size_t i = 0; i < kSlotCount; ++i) {
        ulSlotValue[i] = 0;
        ulSlotRate[i] = 0;
    }
}

bool FileStoreBandwidthManager::TransfersAreDisabled() {
    int frameSize = 0;
    return BandwidthIsLimited() && GetRate(frameSize) == 0;
}

std::optional<FileStoreBandwidthManager::Allowance> FileStoreBandwidthManager::GetAllowance() const {
    if (!fWindowDefined) return std::nullopt;
    const auto value = static_cast<double>(ulSlotValue[WeekHour(std::time(nullptr), fUseUTCTime)].load());
    if (fAbsoluteRate) return Allowance{.bitsPerSecond = value * 1000};
    return Allowance{.isShare = true, .share = value / (fPercentage ? 100 : 1000)};
}

std::optional<FileStoreBandwidthManager::ClosedSpan> FileStoreBandwidthManager::GetClosedSpan(
    std::int64_t now) const {
    const auto isClosed = [this](std::int64_t time) { return ulSlotRate[WeekHour(time, fUseUTCTime)] == 0; };
    if (!fWindowDefined || !isClosed(now)) return std::nullopt;
    ClosedSpan span;
    // Local time may show two hours of the week again, or leave some out.
    constexpr std::size_t kMostSteps = kSlotCount + 2;
    std::int64_t end = now;
    std::int64_t begin = now + 1;
    for (std::size_t i = 0; i < kMostSteps && span.until == 0; ++i) {
        end = WeekHourEnd(end, fUseUTCTime);
        if (!isClosed(end)) span.until = end;
    }
    for (std::size_t i = 0; i < kMostSteps && span.since == 0; ++i) {
        begin = WeekHourBegin(begin - 1, fUseUTCTime);
        if (!isClosed(begin - 1)) span.since = begin;
    }
    return span;
}

void FileStoreBandwidthManager::ShareRates() {
    const auto transfers = static_cast<std::uint64_t>(iActiveTransfers > 0 ? iActiveTransfers : 0);
    const bool isShared = transfers >= 1 && !fPercentage && !fPerThousand;
    for (std::size_t i = 0; i < kSlotCount; ++i) {
        const std::uint64_t value = ulSlotValue[i];
        ulSlotRate[i] = isShared && value >= transfers ? value / transfers : value;
    }
}
