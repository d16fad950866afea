#include <algorithm>
#include <cstdio>

#include "cli/commands.h"
#include "cli/file_names.h"
#include "cli/list_output.h"
#include "cli/progress_bar.h"
#include "cli/publication_watch.h"
#include "cli/remote.h"
#include "cli/table.h"
#include "kel/file.h"
#include "kel/path.h"

namespace {

/// The master copies and hashes the file before it answers.
constexpr int kPublishTimeoutSeconds = 3600;

KelContainer PublishArguments(const PublishOptions& options, const KelString& file) {
    KelContainer arguments;
    arguments.SetString("FilePath", CompletePath(file));
    arguments.SetString("FileType", options.type);
    arguments.SetString("FileLabel", options.label);
    for (std::uint32_t i = 0; i < options.devices.size(); ++i)
        arguments.SetString("Device", options.devices[i], i);
    arguments.SetInt32("Priority", options.priority);
    arguments.SetBool("Bypass", options.bypass);
    arguments.SetBool("WakeOnLan", options.wake);
    return arguments;
}

/// Publishes file by file, up to the first that is refused; what was published goes under "Values". An exit
/// code.
int PublishFiles(const Remote& remote, const PublishOptions& options, int timeoutSeconds,
                 KelContainer& published) {
    std::int64_t whole = 0;
    for (const KelString& file : options.files)
        whole += std::max<std::int64_t>(FileGetSize64(file), 0);
    std::int64_t done = 0;
    std::uint32_t count = 0;
    ProgressBar bar(whole);
    for (const KelString& file : options.files) {
        bar.Show(done, file);
        KelContainer answer = PublishArguments(options, file);
        if (const unsigned int result = remote.Call("ConsolePublish", answer, timeoutSeconds); result != 0) {
            std::fprintf(stderr, "kel: %s was not published\n", Printable(file).c_str());
            return ExitCodeOf(result);
        }
        done += answer.GetInt64("FileSize");
        answer.SetString("File", file);
        published.SetContainer("Values", std::move(answer), count++);
    }
    return kExitDone;
}

/// Says of each publication with failed targets where to read why. True when there is one.
bool TellFailures(const KelContainer& published) {
    bool told = false;
    const std::uint32_t count = published.Has("Values") ? published.Count("Values") : 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const KelContainer& item = published.GetContainer("Values", i);
        if (item.GetInt32("Failed") == 0) continue;
        std::fprintf(stderr, "kel: %s failed on %d of %d devices; 'kel publications %s' tells why\n",
                     Printable(item.GetString("File")).c_str(), item.GetInt32("Failed"),
                     item.GetInt32("Targets"), Printable(item.GetString("PublicationId")).c_str());
        told = true;
    }
    return told;
}

KelVector<Column> Columns(bool withCounts) {
    KelVector<Column> columns = {
        ValueColumn("PUBLICATION", "PublicationId"),
        ValueColumn("FILE", "File"),
        {"SIZE", [](const KelContainer& item) { return SizeText(item.GetInt64("FileSize")); }},
        ValueColumn("CHECKSUM", "FileChecksum"),
        ValueColumn("TARGETS", "Targets")};
    if (withCounts)
        columns.insert(columns.end(), {ValueColumn("DELIVERED", "Delivered"), ValueColumn("FAILED", "Failed"),
                                       ValueColumn("PENDING", "Pending")});
    return columns;
}

}  // namespace

int RunPublish(const CommonOptions& common, const PublishOptions& options) {
    if (const KelStatus usable = CheckDifferentNames(options.files); !usable) return Complain(usable.Error());
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer published;
    const int timeout = std::max(common.timeoutSeconds, kPublishTimeoutSeconds);
    int exitCode = PublishFiles(*remote, options, timeout, published);
    if (options.watch) exitCode = std::max(exitCode, WatchPublications(*remote, published));
    const bool failed = TellFailures(published);
    if (failed) exitCode = std::max(exitCode, kExitFailed);
    if (common.json || published.Has("Values"))
        PrintList(published, "Values", common.json, Columns(options.watch || failed));
    return exitCode;
}
