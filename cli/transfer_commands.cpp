#include <chrono>
#include <thread>

#include "cli/commands.h"
#include "cli/hand_over.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_key.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"
#include "kelcore/relative_name.h"

namespace {

constexpr std::chrono::milliseconds kInboxPollPause{250};

/// Refuses files that the master could not receive; called before any of them is sent.
KelStatus CheckFiles(const SendOptions& options, const KelVector<SourceFile>& files) {
    if (const KelStatus type = CheckKeyPart("type", options.type); !type) return type;
    if (const KelStatus label = CheckKeyPart("label", options.label); !label) return label;
    for (const SourceFile& file : files) {
        if (FileGetSize64(file.path) == 0)
            return KelError{kKelErrorBadInput,
                            file.path + " is empty, and empty files cannot be sent up; nothing was sent"};
    }
    return CheckDifferentNames(files);
}

KelContainer SendArguments(const SendOptions& options, const SourceFile& file) {
    FileOffer offer;
    offer.key = {options.type, options.label, file.name, {}};
    offer.upstream = true;
    offer.priority = options.priority;
    offer.bypass = options.bypass;
    offer.copyPath = CompletePath(file.path);
    return offer.ToContainer();
}

KelContainer SentItem(const SendOptions& options, const SourceFile& file) {
    KelContainer item;
    item.SetString("File", file.path);
    item.SetString(kValueFileType, options.type);
    item.SetString(kValueFileLabel, options.label);
    item.SetString(kValueFileName, file.name);
    item.SetInt64(kValueFileSize, FileGetSize64(file.path));
    return item;
}

FileKey KeyOf(const RequestOptions& options) {
    return {options.type, options.label, NameForPath(options.name), options.checksum};
}

/// An empty checksum in `wanted` matches any.
bool IsWanted(FileKey file, const FileKey& wanted) {
    if (wanted.checksum.empty()) file.checksum.clear();
    return file == wanted;
}

/// Sets `found` and `item`, its entry, when the inbox holds the file. The action's result.
unsigned int LookIntoInbox(const Remote& remote, const FileKey& wanted, KelContainer& item, bool& found) {
    KelContainer inbox;
    if (const unsigned int result = remote.Call("DeliveryListFiles", inbox); result != kKelOk) return result;
    for (std::uint32_t i = 0; i < ItemCount(inbox) && !found; ++i) {
        const KelContainer& file = inbox.GetContainer("Values", i);
        if (!IsWanted(FileKey::Read(file), wanted)) continue;
        item = file;
        found = true;
    }
    return kKelOk;
}

/// Polls the inbox until it holds the file or the time is over. An exit code.
int WaitForFile(const Remote& remote, const RequestOptions& options, KelContainer& item) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.waitSeconds);
    for (;;) {
        bool found = false;
        if (const unsigned int result = LookIntoInbox(remote, KeyOf(options), item, found); result != kKelOk)
            return ExitCodeOf(result);
        item.SetString("State", found ? "delivered" : "requested");
        if (found) return kExitDone;
        if (std::chrono::steady_clock::now() >= deadline)
            return Complain("'" + options.name + "' was not delivered within " +
                            std::to_string(options.waitSeconds) + " seconds; the request remains open");
        std::this_thread::sleep_for(kInboxPollPause);
    }
}

KelStatus CheckKey(const RequestOptions& options) {
    if (const KelStatus type = CheckKeyPart("type", options.type); !type) return type;
    if (const KelStatus label = CheckKeyPart("label", options.label); !label) return label;
    return CheckKeyPart("name", NameForPath(options.name));
}

/// A device without a parent can deliver only what its own store holds: a request for another file would
/// never be answered. False, with a message, when that is so; `exitCode` tells.
bool CanBeAnswered(const Remote& remote, const RequestOptions& options, int& exitCode) {
    KelContainer relay;
    const unsigned int result = remote.Call("RelayGetValues", relay);
    exitCode = ExitCodeOf(result);
    if (result != kKelOk) return false;
    if (!ParentAddress(relay.GetContainer("Values")).empty()) return true;
    KelContainer call;
    KeyOf(options).Write(call);
    if (remote.CallQuietly("FileStoreRequestFileSize", call) == kKelOk) return true;
    exitCode = Complain("'" + options.name +
                        "' is not in the store of this device, which has no parent to request it from");
    return false;
}

}  // namespace

int RunCommand(const CommonOptions& common, const SendOptions& options) {
    KelVector<SourceFile> files;
    for (const KelString& path : options.files)
        files.push_back({path, FileNameOf(path)});
    if (const KelStatus usable = CheckFiles(options, files); !usable) return Complain(usable.Error());
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    const HandOver handOver = {
        "FileStoreReceiveFile", [&options](const SourceFile& file) { return SendArguments(options, file); },
        [&options](const SourceFile& file, const KelContainer&) { return SentItem(options, file); }, "sent"};
    KelContainer sent;
    const int exitCode = HandOverFiles(*remote, files, handOver, sent);
    if (!common.json && !sent.Has("Values")) return exitCode;
    PrintList(sent, common.json,
              {TextColumn("FILE", "File"), NameColumn("NAME"), SizeColumn("SIZE", kValueFileSize)});
    return exitCode;
}

int RunCommand(const CommonOptions& common, const RequestOptions& options) {
    if (const KelStatus usable = CheckKey(options); !usable) return Complain(usable.Error());
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    int exitCode = kExitDone;
    if (!CanBeAnswered(*remote, options, exitCode)) return exitCode;
    KelContainer item;
    KeyOf(options).Write(item);
    KelContainer call = item;
    if (const unsigned int result = remote->Call("FileStoreRequestFile", call); result != kKelOk)
        return ExitCodeOf(result);
    if (call.GetBool("FileObsolete")) {
        item.SetString("State", "obsolete");
        exitCode = Complain("'" + options.name + "' is obsolete; the devices above no longer keep it");
    } else if (options.waitSeconds > 0) {
        exitCode = WaitForFile(*remote, options, item);
    } else {
        item.SetString("State", "requested");
    }
    KelContainer list;
    list.SetContainer("Values", std::move(item));
    PrintList(list, common.json,
              {TextColumn("TYPE", kValueFileType), TextColumn("LABEL", kValueFileLabel), NameColumn("NAME"),
               ValueColumn("STATE", "State"), TextColumn("PATH", "Path")});
    return exitCode;
}
