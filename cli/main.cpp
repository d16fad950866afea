#include <cstdio>
#include <exception>

#include "cli/commands.h"
#include "cli/table.h"

namespace {

/// Picks the function of the command that was named.
struct Runner {
    const CommonOptions& common;
    int operator()(const InitOptions& options) const { return RunInit(common, options); }
    int operator()(const StatusOptions& options) const { return RunStatus(common, options); }
    int operator()(const DevicesOptions& options) const { return RunDevices(common, options); }
    int operator()(const PublishOptions& options) const { return RunPublish(common, options); }
    int operator()(const PublicationsOptions& options) const { return RunPublications(common, options); }
    int operator()(const SendOptions& options) const { return RunSend(common, options); }
    int operator()(const CollectedOptions& options) const { return RunCollected(common, options); }
    int operator()(const RequestOptions& options) const { return RunRequest(common, options); }
    int operator()(const UploadOptions& options) const { return RunUpload(common, options); }
    int operator()(const FilesOptions& options) const { return RunFiles(common, options); }
    int operator()(const FileOptions& options) const { return RunFile(common, options); }
    int operator()(const SettingsOptions& options) const { return RunSettings(common, options); }
    int operator()(const WindowsOptions& options) const { return RunWindows(common, options); }
    int operator()(const InboxOptions& options) const { return RunInbox(common, options); }
    int operator()(const CallOptions& options) const { return RunCall(common, options); }
};

}  // namespace

int main(int count, char** arguments) {
    int exitCode = kExitUsage;
    const auto options = ParseOptions(count, arguments, exitCode);
    if (!options) return exitCode;
    try {
        return std::visit(Runner{options->common}, options->command);
    } catch (const std::exception& error) {
        return Complain({1, error.what()});
    }
}
