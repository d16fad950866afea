#include <algorithm>
#include <cstdio>

#include "cli/commands.h"
#include "cli/list_output.h"
#include "cli/progress_bar.h"
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

}  // namespace

int RunPublish(const CommonOptions& common, const PublishOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    std::int64_t whole = 0;
    for (const KelString& file : options.files)
        whole += std::max<std::int64_t>(FileGetSize64(file), 0);
    KelContainer published;
    std::int64_t done = 0;
    std::uint32_t count = 0;
    int exitCode = kExitDone;
    {
        ProgressBar bar(whole);
        for (const KelString& file : options.files) {
            bar.Show(done, file);
            KelContainer answer = PublishArguments(options, file);
            const int timeout = std::max(common.timeoutSeconds, kPublishTimeoutSeconds);
            if (const unsigned int result = remote->Call("ConsolePublish", answer, timeout); result != 0) {
                std::fprintf(stderr, "kel: %s was not published\n", Printable(file).c_str());
                exitCode = ExitCodeOf(result);
                break;
            }
            done += answer.GetInt64("FileSize");
            answer.SetString("File", file);
            published.SetContainer("Values", std::move(answer), count++);
        }
    }
    PrintList(published, "Values", common.json,
              {ValueColumn("PUBLICATION", "PublicationId"),
               ValueColumn("FILE", "File"),
               {"SIZE", [](const KelContainer& item) { return SizeText(item.GetInt64("FileSize")); }},
               ValueColumn("CHECKSUM", "FileChecksum"),
               ValueColumn("TARGETS", "Targets")});
    return exitCode;
}
