#include <algorithm>
#include <cstdio>

#include "cli/commands.h"
#include "cli/hand_over.h"
#include "cli/output.h"
#include "cli/publication_preview.h"
#include "cli/publication_watch.h"
#include "cli/remote.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace {

KelContainer PublishArguments(const PublishOptions& options, const SourceFile& file) {
    KelContainer arguments;
    arguments.SetString(kValueFilePath, CompletePath(file.path));
    arguments.SetString(kValueFileName, file.name);
    arguments.SetString(kValueFileType, options.type);
    arguments.SetString(kValueFileLabel, options.label);
    for (std::uint32_t i = 0; i < options.devices.size(); ++i)
        arguments.SetString("Device", options.devices[i], i);
    for (std::uint32_t i = 0; i < options.stages.size(); ++i)
        arguments.SetInt32("Stage", options.stages[i], i);
    if (!options.stages.empty()) arguments.SetInt32("StopAtFailures", options.stopAtFailures);
    arguments.SetInt32(kValuePriority, options.priority);
    arguments.SetBool(kValueBypass, options.bypass);
    arguments.SetBool(kValueWakeOnLan, options.wake);
    return arguments;
}

/// Publishes the files one by one, up to the first that is refused, and lists them under "Values" in
/// `published`. An exit code.
int PublishFiles(const Remote& remote, const PublishOptions& options, const KelVector<SourceFile>& files,
                 KelContainer& published) {
    const HandOver handOver = {"ConsolePublish",
                               [&options](const SourceFile& file) { return PublishArguments(options, file); },
                               [&options](const SourceFile& file, KelContainer answer) {
                                   answer.SetString("File", file.path);
                                   answer.SetString(kValueFileType, options.type);
                                   answer.SetString(kValueFileLabel, options.label);
                                   answer.SetString(kValueFileName, file.name);
                                   return answer;
                               },
                               "published"};
    return HandOverFiles(remote, files, handOver, published);
}

/// Replaces the lists in the options by what they hold and finds the files. An error names what is unusable.
KelResult<KelVector<SourceFile>> Resolve(PublishOptions& options) {
    auto targets = SelectTargets(options.devices);
    if (!targets) return targets.Error();
    options.devices = std::move(*targets);
    auto selection = SelectFiles(options.files, options.recursive);
    if (!selection) return selection.Error();
    for (const KelString& path : selection->leftOut)
        std::fprintf(stderr,
                     "kel: %s is left out: it is a link to a folder, or neither a file nor a folder\n",
                     Printable(path).c_str());
    return std::move(selection->files);
}

/// Prints a line for each publication with failed targets. True when there is one.
bool ReportFailures(const KelContainer& published) {
    bool failed = false;
    for (std::uint32_t i = 0; i < ItemCount(published); ++i) {
        const KelContainer& item = published.GetContainer("Values", i);
        if (item.GetString("State") == "stopped")
            std::fprintf(stderr, "kel: %s was %s; 'kel resume %s' goes on\n",
                         Printable(item.GetString("File")).c_str(), Printable(StageText(item)).c_str(),
                         Printable(item.GetString("PublicationId")).c_str());
        if (item.GetInt32("Failed") == 0) continue;
        std::fprintf(stderr, "kel: %s failed on %d of %d devices; 'kel publications %s' shows why\n",
                     Printable(item.GetString("File")).c_str(), item.GetInt32("Failed"),
                     item.GetInt32("Targets"), Printable(item.GetString("PublicationId")).c_str());
        failed = true;
    }
    return failed;
}

KelVector<Column> PublishedColumns(bool withCounts) {
    KelVector<Column> columns = {ValueColumn("PUBLICATION", "PublicationId"), TextColumn("FILE", "File"),
                                 SizeColumn("SIZE", kValueFileSize),
                                 ValueColumn("CHECKSUM", kValueFileChecksum),
                                 ValueColumn("TARGETS", "Targets")};
    if (withCounts)
        columns.insert(columns.end(), {ValueColumn("DELIVERED", "Delivered"), ValueColumn("FAILED", "Failed"),
                                       ValueColumn("PENDING", "Pending")});
    return columns;
}

/// Of a target that waits, what it waits for.
KelString MessageOrReason(const KelContainer& target) {
    const KelString message = target.GetString("Message");
    return message.empty() ? ReasonText(target.GetContainer("Reason")) : message;
}

/// The stages of the only publication in `call`, and an empty line.
void PrintStages(const KelContainer& call) {
    PrintList(call, false,
              {ValueColumn("STAGE", "Stage"), ValueColumn("TARGETS", "Targets"),
               ValueColumn("DELIVERED", "Delivered"), ValueColumn("FAILED", "Failed"),
               ValueColumn("PENDING", "Pending"), ValueColumn("SCHEDULED", "Scheduled")},
              "Stages");
    std::printf("\n%s\n\n", Printable(StageText(call.GetContainer("Values"))).c_str());
}

/// One publication, device by device.
int PrintDevices(const CommonOptions& common, const PublicationsOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer call;
    call.SetString("PublicationId", options.id);
    if (const unsigned int result = remote->Call("ConsoleListPublications", call); result != kKelOk)
        return ExitCodeOf(result);
    const bool isWaiting = call.GetContainer("Values").GetInt32("Pending") > 0;
    unsigned int result = kKelOk;
    if (isWaiting && !options.withoutReasons) result = AddReasons(*remote, options.id, call);
    if (!common.json && call.Has("Stages")) PrintStages(call);
    KelVector<Column> columns = {TextColumn("NAME", "Name"), ValueColumn("GUID", "GUID")};
    if (call.Has("Stages")) columns.push_back(ValueColumn("STAGE", "Stage"));
    columns.insert(
        columns.end(),
        {ValueColumn("STATUS", "Status"), TimeColumn("SINCE", "Time"), {"MESSAGE", MessageOrReason, true}});
    PrintList(call, common.json, columns, "Devices");
    return ExitCodeOf(result);
}

}  // namespace

int RunCommand(const CommonOptions& common, const PublishOptions& given) {
    PublishOptions options = given;
    const auto files = Resolve(options);
    if (!files) return Complain(files.Error());
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    if (options.dryRun) return PrintPreview(*remote, options, *files, common.json);
    KelContainer published;
    int exitCode = PublishFiles(*remote, options, *files, published);
    if (options.watch) exitCode = std::max(exitCode, WatchPublications(*remote, published));
    const bool failed = ReportFailures(published);
    if (failed) exitCode = std::max(exitCode, kExitFailed);
    if (common.json || published.Has("Values"))
        PrintList(published, common.json, PublishedColumns(options.watch || failed));
    return exitCode;
}

int RunCommand(const CommonOptions& common, const PublicationsOptions& options) {
    if (!options.id.empty()) return PrintDevices(common, options);
    return PrintActionList(common, "ConsoleListPublications", {},
                           {ValueColumn("PUBLICATION", "PublicationId"),
                            TextColumn("TYPE", kValueFileType),
                            TextColumn("LABEL", kValueFileLabel),
                            NameColumn("FILE"),
                            SizeColumn("SIZE", kValueFileSize),
                            TimeColumn("PUBLISHED", "CreateTime"),
                            ValueColumn("TARGETS", "Targets"),
                            ValueColumn("DELIVERED", "Delivered"),
                            ValueColumn("FAILED", "Failed"),
                            ValueColumn("WITHDRAWN", "Withdrawn"),
                            ValueColumn("PENDING", "Pending"),
                            {"STAGE", StageText}});
}

int RunCommand(const CommonOptions& common, const ResumeOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer call;
    call.SetString("PublicationId", options.id);
    call.SetBool("Next", options.next);
    const unsigned int result = remote->Call("ConsoleResume", call);
    if (result == kKelOk && common.json) std::puts("[]");
    return ExitCodeOf(result);
}
