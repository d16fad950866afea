#include <algorithm>
#include <cstdio>

#include "cli/commands.h"
#include "cli/file_names.h"
#include "cli/list_output.h"
#include "cli/progress_bar.h"
#include "cli/remote.h"
#include "cli/table.h"
#include "kel/file.h"
#include "kel/path.h"

namespace {

/// The agent copies and hashes the file before it answers.
constexpr int kSendTimeoutSeconds = 3600;

/// Refuses what could not arrive, before anything is sent.
KelStatus CheckFiles(const KelVector<KelString>& files) {
    for (const KelString& file : files) {
        if (FileGetSize64(file) == 0)
            return KelError{1, file + " is empty; only files with content travel up. Nothing was sent"};
    }
    return CheckDifferentNames(files);
}

KelContainer SendArguments(const SendOptions& options, const KelString& file) {
    KelContainer arguments;
    arguments.SetString("FileType", options.type);
    arguments.SetString("FileLabel", options.label);
    arguments.SetString("FileName", FileNameOf(file));
    arguments.SetString("CopyPath", CompletePath(file));
    arguments.SetBool("Upstream", true);
    arguments.SetInt32("Priority", options.priority);
    arguments.SetBool("Bypass", options.bypass);
    return arguments;
}

KelContainer SentItem(const SendOptions& options, const KelString& file) {
    KelContainer item;
    item.SetString("File", file);
    item.SetString("FileType", options.type);
    item.SetString("FileLabel", options.label);
    item.SetString("FileName", FileNameOf(file));
    item.SetInt64("FileSize", FileGetSize64(file));
    return item;
}

}  // namespace

int RunSend(const CommonOptions& common, const SendOptions& options) {
    if (const KelStatus usable = CheckFiles(options.files); !usable) return Complain(usable.Error());
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    std::int64_t whole = 0;
    for (const KelString& file : options.files)
        whole += std::max<std::int64_t>(FileGetSize64(file), 0);
    KelContainer sent;
    std::int64_t done = 0;
    std::uint32_t count = 0;
    int exitCode = kExitDone;
    {
        ProgressBar bar(whole);
        for (const KelString& file : options.files) {
            bar.Show(done, file);
            KelContainer call = SendArguments(options, file);
            const int timeout = std::max(common.timeoutSeconds, kSendTimeoutSeconds);
            if (const unsigned int result = remote->Call("FileStoreReceiveFile", call, timeout);
                result != 0) {
                std::fprintf(stderr, "kel: %s was not sent\n", Printable(file).c_str());
                exitCode = ExitCodeOf(result);
                break;
            }
            KelContainer item = SentItem(options, file);
            done += item.GetInt64("FileSize");
            sent.SetContainer("Values", std::move(item), count++);
        }
    }
    PrintList(sent, "Values", common.json,
              {ValueColumn("FILE", "File"),
               ValueColumn("NAME", "FileName"),
               {"SIZE", [](const KelContainer& item) { return SizeText(item.GetInt64("FileSize")); }}});
    return exitCode;
}
