#include "filestore/down/withdraw.h"

#include <algorithm>
#include <array>
#include <span>

#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/db/files_table.h"
#include "filestore/db/handed_over_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/announcement_calls.h"
#include "filestore/down/multicast_calls.h"
#include "filestore/down/multicast_thread.h"
#include "filestore/down/target_list.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/removal.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

using namespace filestore;

namespace {

constexpr const char* kAction = "FileStoreWithdrawFile";
constexpr const char* kEvent = "FileStoreCallbackWithdrawnFile";
constexpr const char* kValueKeepContent = "KeepContent";
constexpr const char* kValueRemoved = "Removed";

/// The types under which the content of a rule package may be known.
constexpr std::array kPackageTypes = {kRulePackageType, "OperationalRuleNetworkPackage",
                                      "OperationalRelayPackage"};

/// What a call says.
struct Withdrawal {
    FileKey key;
    bool isDeletion = false;  ///< for all targets, and for good: the file is obsolete
    bool keepContent = false;
    bool isRemoval = false;
    bool isHere = false;            ///< this device is a target
    KelVector<SubTree> below;       ///< by device of the next level
    bool isKeptByConsumer = false;  ///< a module of this device works on it
};

KelContainer ValuesOf(const FileWithdrawal& withdrawal, KelContainer tree) {
    KelContainer values;
    withdrawal.key.Write(values);
    values.SetContainer(kValueDevicePath, std::move(tree));
    values.SetBool(kValueKeepContent, withdrawal.keepContent);
    values.SetBool(kValueRemoved, withdrawal.isRemoval);
    return values;
}

/// Without a tree this device alone is meant. False when the call is unusable.
bool Read(const KelContainer& arguments, Withdrawal& withdrawal) {
    withdrawal.key = FileKey::Read(arguments);
    withdrawal.keepContent = arguments.GetBool(kValueKeepContent);
    withdrawal.isRemoval = arguments.GetBool(kValueRemoved);
    if (!CheckFileKey(withdrawal.key, true)) return false;
    const KelContainer tree = arguments.GetContainer(kValueDevicePath);
    withdrawal.isHere = tree.IsEmpty();
    if (withdrawal.isHere) return true;
    if (!FileStore::CheckDevicePath(tree)) return false;
    for (SubTree& part : SubTreesOf(tree)) {
        if (part.device.empty())
            withdrawal.isHere = true;
        else if (!CheckDeviceText(kValueDevicePath, part.device))
            return false;
        else
            withdrawal.below.push_back(std::move(part));
    }
    return true;
}

/// Modules that have begun with a file answer that it stays. They are asked without a lock.
bool AskConsumers(const FileKey& key) {
    KelContainer values, results;
    key.Write(values);
    CallbackDbTrigger(kEvent, values, results);
    return FileStore::CheckHandlerResult(results, kKelAnswerStaysHere);
}

/// False when the database did not take it, in this and those below. `left`: the targets that remain.
bool RemoveTargets(std::uint64_t fileId, const Withdrawal& withdrawal, std::size_t& left) {
    const auto targets = FindTargets(fileId);
    if (!targets) return false;
    left = targets->size();
    for (const FileStoreTarget& target : *targets) {
        const bool isEnded = withdrawal.isDeletion || (target.DeviceGUID.empty() && withdrawal.isHere);
        const auto rest =
            isEnded ? std::nullopt : WithoutTargets(target, withdrawal.below, withdrawal.keepContent);
        if (rest && *rest == target) continue;
        if (!(rest ? StoreTarget(fileId, *rest) != 0 : DeleteTarget(target.TargetId))) return false;
        if (!rest) --left;
    }
    return true;
}

/// True when nothing on this device wants the file any more, which is being withdrawn.
bool IsToBeForgotten(const FileStoreEntry& file, const Withdrawal& withdrawal) {
    if (withdrawal.isKeptByConsumer || file.FileStatus == kStatusReceiving) return false;
    if (!withdrawal.isHere && IsHandedOver(file.FileId)) return false;
    const bool isHeld = file.FileStatus == kStatusAvailable || file.FileStatus == kStatusNotRelaysChild;
    return !(isHeld && withdrawal.keepContent);
}

bool WithdrawRow(const FileStoreEntry& file, const Withdrawal& withdrawal, FileRows& forgotten) {
    std::size_t left = 0;
    if (!RemoveTargets(file.FileId, withdrawal, left)) return false;
    if (left != 0 || !IsToBeForgotten(file, withdrawal)) return true;
    forgotten.push_back(file);
    return withdrawal.isDeletion
               ? UpdateFileStatus(Side::Downstream, file.FileId, kStatusObsolete, NextTry::AtOnce)
               : DeleteFileRow(Side::Downstream, file.FileId);
}

/// Records what the devices of the next level are to be told. A target that is gone is not called any more.
bool PassOn(const Withdrawal& withdrawal) {
    return std::all_of(withdrawal.below.begin(), withdrawal.below.end(), [&](const SubTree& part) {
        const bool isGone = withdrawal.isRemoval && part.below.IsEmpty();
        const KelString guid = StringTokeniser(part.device, '/').GetToken(1);
        if (isGone) return IsUsableGuid(guid) && DeleteWithdrawalsOf(guid);
        KelContainer tree;
        tree.SetContainer(part.device, part.below);
        return AddWithdrawal({.deviceGuid = part.device,
                              .key = withdrawal.key,
                              .devicePath = tree.SaveToXML(),
                              .keepContent = withdrawal.keepContent,
                              .isRemoval = withdrawal.isRemoval});
    });
}

bool RecordOne(const Withdrawal& withdrawal, FileRows& forgotten) {
    const auto rows = SelectFilesOfKey(withdrawal.key);
    return rows &&
           std::all_of(
               rows->begin(), rows->end(),
               [&](const FileStoreEntry& file) { return WithdrawRow(file, withdrawal, forgotten); }) &&
           PassOn(withdrawal);
}

/// Removes the rows and targets and records what others are to be told: all of it or nothing.
bool RecordRows(std::span<const Withdrawal> withdrawals, FileRows& forgotten)
    KEL_REQUIRES(FileStore::mutexDownstream) {
    DBTransaction transaction(*FileStore::pDbConnectionDownstream);
    return transaction.IsOpen() &&
           std::all_of(withdrawals.begin(), withdrawals.end(),
                       [&](const Withdrawal& withdrawal) { return RecordOne(withdrawal, forgotten); }) &&
           transaction.Commit();
}

/// What it does not record is repeated by the caller.
bool Record(std::span<const Withdrawal> withdrawals) {
    ContentRemoval removal(Side::Downstream);
    FileRows forgotten;
    {
        const KelLock lock(FileStore::mutexDownstream);
        if (!RecordRows(withdrawals, forgotten)) return false;
        // Claimed under the lock: an offer of the same file puts its content at the same place.
        for (const FileStoreEntry& file : forgotten) {
            FileStore::debugFileStore.Print("%S was withdrawn and is forgotten\n", file.Key().Text());
            if (removal.Claim(file)) removal.Confirm(file);  // what is in use goes later
        }
    }
    removal.RemoveContent();
    FileStoreMulticastThread::NoteWithdrawal();
    for (const FileStoreEntry& file : forgotten)
        if (file.FileStatus == kStatusMulticastListening) StopListening({}, file.MulticastAddress);
    return true;
}

/// The key of the package to delete: that of the arguments, or the one that an order names.
FileKey PackageKey(const KelContainer& arguments) {
    FileKey key = FileKey::Read(arguments);
    if (key.type != kPackageDeletionType) return key;
    const KelContainer& info = arguments.GetContainer(kValueFileInfo);
    return {kRulePackageType, info.GetString("PackageName"), key.name, info.GetString("PackageChecksum")};
}

/// The withdrawals that delete a package, one for each type of it; none when the call is unusable.
KelVector<Withdrawal> ReadDeletion(const KelContainer& arguments) {
    KelContainer values = arguments;
    PackageKey(arguments).Write(values);
    Withdrawal one;
    one.isDeletion = true;
    // Without a checksum all contents would be deleted.
    if (!Read(values, one) || one.key.checksum.empty()) return {};
    one.isHere = true;
    KelVector<Withdrawal> all = {one};
    if (one.key.type != kRulePackageType) return all;
    for (const char* type : kPackageTypes) {
        if (one.key.type == type) continue;
        all.push_back(one);
        all.back().key.type = type;
    }
    return all;
}

}  // namespace

namespace filestore {

unsigned int WithdrawFrom(const FileWithdrawal& withdrawal) {
    KelContainer tree;
    if (!tree.LoadFromXML(withdrawal.devicePath)) return kKelErrorBadInput;
    KelContainer values = ValuesOf(withdrawal, std::move(tree));
    KelString url, guid;
    FileStore::GetDeviceUrl(withdrawal.deviceGuid, url, guid);
    return ActionDbInvokeContainer(nullptr, url, kAction, values, 0, kConnectTimeout, kCallTimeout, nullptr);
}

bool IsFinalRefusal(unsigned int error) {
    return error == kKelErrorBadInput || error == kKelErrorUnknownAction;
}

}  // namespace filestore

unsigned int FileStore::ActionHandler_FileStoreWithdrawFile(KelContainer* arguments) {
    Withdrawal withdrawal;
    const bool isUsable = Read(*arguments, withdrawal);
    arguments->Clear();
    if (!isUsable) return kKelErrorBadInput;
    if (withdrawal.isHere) withdrawal.isKeptByConsumer = AskConsumers(withdrawal.key);
    if (!Record({&withdrawal, 1})) return kKelErrorInternal;  // the caller repeats it
    if (!withdrawal.below.empty()) WakeWorker(Worker::Notify);
    return kKelOk;
}

/// The content goes; the row stays, so that devices which request the file get the answer that it is
/// obsolete. The devices below forget the file and get that answer when they request it again.
unsigned int FileStore::ActionHandler_FileStoreDeletePackage(KelContainer* arguments) {
    const KelVector<Withdrawal> withdrawals = ReadDeletion(*arguments);
    arguments->Clear();
    if (withdrawals.empty()) {
        arguments->SetString("Message", "The key of the package is unusable");
        return kKelErrorBadInput;
    }
    for (const Withdrawal& withdrawal : withdrawals) {
        if (!AskConsumers(withdrawal.key)) continue;
        arguments->SetString("Message", "A module of this device works on the package; delete it later");
        return kKelErrorNotAvailable;
    }
    if (!Record(withdrawals)) return kKelErrorInternal;
    if (!withdrawals.front().below.empty()) WakeWorker(Worker::Notify);
    return kKelOk;
}
