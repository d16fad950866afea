#include <chrono>
#include <cstdio>
#include <thread>

#include "cli/commands.h"
#include "cli/list_output.h"
#include "cli/remote.h"

namespace {

constexpr std::chrono::milliseconds kPollPause{250};

KelContainer KeyOf(const RequestOptions& options) {
    KelContainer key;
    key.SetString("FileType", options.type);
    key.SetString("FileLabel", options.label);
    key.SetString("FileName", options.name);
    key.SetString("FileChecksum", options.checksum);
    return key;
}

bool IsFile(const KelContainer& file, const RequestOptions& options) {
    return file.GetString("FileType") == options.type && file.GetString("FileLabel") == options.label &&
           file.GetString("FileName") == options.name &&
           (options.checksum.empty() || file.GetString("FileChecksum") == options.checksum);
}

/// The action's result; `found` says whether the inbox holds the file, `item` then tells about it.
unsigned int LookIntoInbox(const Remote& remote, const RequestOptions& options, KelContainer& item,
                           bool& found) {
    KelContainer inbox;
    if (const unsigned int result = remote.Call("DeliveryListFiles", inbox); result != 0) return result;
    const std::uint32_t count = inbox.Has("Values") ? inbox.Count("Values") : 0;
    for (std::uint32_t i = 0; i < count && !found; ++i) {
        const KelContainer& file = inbox.GetContainer("Values", i);
        if (!IsFile(file, options)) continue;
        item = file;
        found = true;
    }
    return 0;
}

int WaitForFile(const Remote& remote, const RequestOptions& options, KelContainer& item) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.waitSeconds);
    for (;;) {
        bool found = false;
        if (const unsigned int result = LookIntoInbox(remote, options, item, found); result != 0)
            return ExitCodeOf(result);
        item.SetString("State", found ? "delivered" : "requested");
        if (found) return kExitDone;
        if (std::chrono::steady_clock::now() >= deadline)
            return Complain({1, "'" + options.name + "' was not delivered within " +
                                    std::to_string(options.waitSeconds) + " seconds; the request stands"});
        std::this_thread::sleep_for(kPollPause);
    }
}

}  // namespace

int RunRequest(const CommonOptions& common, const RequestOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer item = KeyOf(options);
    KelContainer call = item;
    if (const unsigned int result = remote->Call("FileStoreRequestFile", call); result != 0)
        return ExitCodeOf(result);
    int exitCode = kExitDone;
    if (call.GetBool("FileObsolete")) {
        item.SetString("State", "obsolete");
        exitCode = Complain({1, "'" + options.name + "' is obsolete; the devices above keep it no more"});
    } else if (options.waitSeconds > 0) {
        exitCode = WaitForFile(*remote, options, item);
    } else {
        item.SetString("State", "requested");
    }
    KelContainer list;
    list.SetContainer("Values", std::move(item));
    PrintList(list, "Values", common.json,
              {ValueColumn("TYPE", "FileType"), ValueColumn("LABEL", "FileLabel"),
               ValueColumn("NAME", "FileName"), ValueColumn("STATE", "State"), ValueColumn("PATH", "Path")});
    return exitCode;
}
