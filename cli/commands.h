#pragma once

#include <cstdint>

#include "cli/options.h"
#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

// The commands, each family in a file of its own (publish_commands.cpp, store_commands.cpp, why_command.cpp
// and so on), and those of their steps that have tests of their own.

/// Runs one command: prints its results to stdout and what went wrong to stderr. An exit code of
/// cli/options.h.
int RunCommand(const CommonOptions& common, const InitOptions& options);
int RunCommand(const CommonOptions& common, const StatusOptions& options);
int RunCommand(const CommonOptions& common, const DevicesOptions& options);
int RunCommand(const CommonOptions& common, const PublishOptions& options);
int RunCommand(const CommonOptions& common, const PublicationsOptions& options);
int RunCommand(const CommonOptions& common, const WithdrawOptions& options);
int RunCommand(const CommonOptions& common, const RemoveDeviceOptions& options);
int RunCommand(const CommonOptions& common, const SendOptions& options);
int RunCommand(const CommonOptions& common, const CollectedOptions& options);
int RunCommand(const CommonOptions& common, const RequestOptions& options);
int RunCommand(const CommonOptions& common, const UploadOptions& options);
int RunCommand(const CommonOptions& common, const FilesOptions& options);
int RunCommand(const CommonOptions& common, const FileOptions& options);
int RunCommand(const CommonOptions& common, const SettingsOptions& options);
int RunCommand(const CommonOptions& common, const WindowsOptions& options);
int RunCommand(const CommonOptions& common, const InboxOptions& options);
int RunCommand(const CommonOptions& common, const CallOptions& options);
int RunCommand(const CommonOptions& common, const WhyOptions& options);
int RunCommand(const CommonOptions& common, const GroupsOptions& options);
int RunCommand(const CommonOptions& common, const ResumeOptions& options);
int RunCommand(const CommonOptions& common, const WakeOptions& options);
int RunCommand(const CommonOptions& common, const MulticastOptions& options);
int RunCommand(const CommonOptions& common, const ParentOptions& options);
int RunCommand(const CommonOptions& common, const AuditOptions& options);
int RunCommand(const CommonOptions& common, const MetricsOptions& options);
int RunCommand(const CommonOptions& common, const BackupOptions& options);
int RunCommand(const CommonOptions& common, const RestoreOptions& options);
int RunCommand(const CommonOptions& common, const DoctorOptions& options);
int RunCommand(const CommonOptions& common, const InviteOptions& options);
int RunCommand(const CommonOptions& common, const KeysOptions& options);
int RunCommand(const CommonOptions& common, const PasswordOptions& options);
int RunCommand(const CommonOptions& common, const TopOptions& options);
int RunCommand(const CommonOptions& common, const CompletionOptions& options);
int RunCommand(const CommonOptions& common, const ManualOptions& options);

class Remote;

/// The parent in a device's answer to RelayGetValues, as one line: "HOST:PORT (in sync since …)".
KelString ParentText(const KelContainer& relay);

/// Numbers of files by status, as one line.
KelString QueueText(const KelContainer& counts);

/// Why a file waits, as one cell: the sentence, and at which device. `reason`: a target's or file's values.
KelString ReasonText(const KelContainer& reason);

/// Asks the devices of the tree why pending targets of a publication wait, and gives those under "Devices" in
/// `devices` a container Reason. 0, or the result of the call, which was reported.
unsigned int AddReasons(const Remote& remote, const KelString& publicationId, KelContainer& devices);

/// A device's place in the tree that `devices` prints.
struct DeviceRow {
    std::uint32_t index;  ///< among the containers under "Values"
    std::uint32_t depth;  ///< 0: its parent is not among them
};

/// The devices under "Values" in `answer` (each with GUID and Parent), parents before their children and
/// otherwise in the order given. Every device appears once, also when parents name each other in a circle.
KelVector<DeviceRow> OrderByParent(const KelContainer& answer);

/// The answer to TransferWindowGetStatus as `windows` prints it: a line for each direction and a table of the
/// week for each window; on one line, as `status` does; and as a list under `name` for JSON.
KelString WindowsText(const KelContainer& answer);
KelString WindowsLine(const KelContainer& answer);
KelContainer WindowsForJson(const KelContainer& answer, const KelString& name);

/// The arguments of WakeOnLanWakeUp for the device with this GUID or name, in any case, among those under
/// "Values" in `devices`, of which the first is the master. An error when there is none, several have the
/// name, or no way leads to it.
KelResult<KelContainer> WakeUpArguments(const KelContainer& devices, const KelString& device);

/// The rows that `file` prints: the values of a file of the store, each as a container with Name and Value
/// under "Values". Sizes, times and the status are in readable form.
KelContainer FileValueList(const KelContainer& file);

/// What `multicast` prints of one container of the file store's answer: Group, Device or Devices, State, and
/// Retry with the number of the pass that a device waits for.
KelContainer MulticastItem(const KelContainer& values);

/// Puts "name=text" or "name:=JSON", an argument of `call`, into a container; a name that is given again gets
/// another value. An error when the text is neither or the JSON is malformed.
KelStatus AddCallArgument(const KelString& text, KelContainer& container);
