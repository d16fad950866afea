#include "cli/json_names.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "kel/text.h"
#include "kelcore/file_status_name.h"
#include "kelcore/file_values.h"
#include "kelcore/relative_name.h"

namespace {

enum class Form : unsigned char {
    AsIs,
    Status,        ///< the status of a file
    StatusCounts,  ///< a container of numbers by status
    Path,          ///< a file's name, as the path that it may stand for
    Values,        ///< a container of values under the actions' own names
    Percent,       ///< "50 %" as a number; left out when it is unknown
};

struct Name {
    std::string_view value;
    std::string_view json;
    Form form = Form::AsIs;
};

constexpr auto kNames = std::to_array<Name>({
    // files
    {"FileId", "id"},
    {kValueFileType, "type"},
    {kValueFileLabel, "label"},
    {kValueFileName, "name", Form::Path},
    {kValueFileChecksum, "checksum"},
    {kValueFileSize, "size"},
    {"Size", "size"},
    {"FileStatus", "status", Form::Status},
    {"TransferredData", "percent", Form::Percent},
    {"TransferredBytes", "transferred_bytes"},
    {kValueUpstream, "upstream"},
    {kValueKeepCopy, "keep_copy"},
    {kValueBypass, "bypass"},
    {"Acknowledged", "acknowledged"},
    {kValuePriority, "priority"},
    {"CreateTime", "created"},
    {kValueSourceDevice, "source_device"},
    {kValueFirstRelay, "first_relay"},
    {"File", "file"},
    {"Entries", "entries"},
    {"Path", "path"},
    {"Time", "time"},
    {"State", "state"},
    // publications
    {"PublicationId", "publication"},
    {"Targets", "targets"},
    {"Delivered", "delivered"},
    {"Failed", "failed"},
    {"Withdrawn", "withdrawn"},
    {"Removed", "removed"},
    {"Pending", "pending"},
    {"Status", "status"},
    {"Message", "message"},
    {"StageCount", "stages"},
    // what would be published
    {"Kind", "kind"},
    {"Held", "held"},
    {"Stage", "stage"},
    {"Via", "via"},
    {"From", "from"},
    {"To", "to"},
    {"FromGuid", "from_guid"},
    {"ToGuid", "to_guid"},
    // reasons
    {"Reason", "reason"},
    {"At", "at"},
    {"AtName", "at_name"},
    {"Code", "code"},
    {"Peer", "peer"},
    {"Bytes", "bytes"},
    {"Count", "count"},
    {"Since", "since"},
    {"NextTry", "next_try"},
    // devices
    {"GUID", "guid"},
    {"Name", "name"},
    {"Role", "role"},
    {"Address", "address"},
    {"Parent", "parent"},
    {"PathName", "path_name"},
    {"FirstSeen", "first_seen"},
    {"LastSeen", "last_seen"},
    {"SilentSince", "silent_since"},
    {"Device", "device"},
    // keys
    {"Token", "token"},
    {"Expires", "expires"},
    {"IsEnrolled", "enrolled"},
    {"IsInvited", "invited"},
    {"IsRevoked", "revoked"},
    {"Fingerprint", "key"},
    {"Serial", "serial"},
    {"NotBefore", "valid_from"},
    {"NotAfter", "valid_until"},
    {"Authority", "authority"},
    {"AuthorityNotAfter", "authority_until"},
    {"ParentFingerprint", "parent_key"},
    {"RevokedNumber", "revoked_number"},
    {"RevokedCount", "revoked_count"},
    {"AcceptsPassword", "accepts_password"},
    {"PasswordCallers", "password_callers"},
    {"IsWithoutKeys", "without_keys"},
    {"HasFormer", "has_former"},
    {"FormerEnd", "former_end"},
    {"FormerCallers", "former_callers"},
    // groups
    {"Member", "member"},
    {"Members", "members"},
    {"Devices", "devices"},
    {"WakeOnLanSenderIPAddr", "sender"},
    {"WakeOnLanBroadcastIPAddr", "broadcast"},
    // status
    {"Agent", "agent"},
    {"Version", "version"},
    {"Root", "root"},
    {"Started", "started"},
    {"Pid", "pid"},
    {"MemoryBytes", "memory_bytes"},
    {"Modules", "modules"},
    {"Identity", "identity"},
    {"HostName", "host_name"},
    {"IPAddress", "ip_address"},
    {"MACAddress", "mac_address"},
    {"NetworkMask", "network_mask"},
    {"PreferIPAddresses", "prefer_ip_addresses"},
    {"Relay", "relay"},
    {"IsEnabled", "is_enabled"},
    {"ParentName", "parent_name"},
    {"ParentIPAddress", "parent_ip_address"},
    {"ParentGuid", "parent_guid"},
    {"ParentPort", "parent_port"},
    {"ParentOwnAddress", "parent_own_address"},
    {"ParentVersion", "parent_version"},
    {"ParentTimeAhead", "parent_time_ahead"},
    {"Children", "children"},
    {"Check", "check"},
    {"Advice", "advice"},
    {"ParentSync", "parent_in_sync"},
    {"ParentSince", "parent_since"},
    {"ParentNextCheck", "parent_next_check"},
    {"ParentProblem", "parent_problem"},
    {"SchemeSettled", "scheme_settled"},
    {"Waiting", "waiting"},
    {"WindowUp", "window_up"},
    {"Bandwidth", "bandwidth"},
    {"BandwidthMeasured", "bandwidth_measured"},
    {"WindowDown", "window_down"},
    {"Until", "until"},
    {"DiskFree", "disk_free"},
    {"DiskFull", "disk_full"},
    {"WaitingFiles", "files"},
    {"Needed", "needed"},
    {"WaitingTargets", "targets"},
    {"Files", "files", Form::StatusCounts},
    {"FilesUpstream", "files_upstream", Form::StatusCounts},
    // settings and windows
    {"Value", "value"},
    {"Direction", "direction"},
    {"Slots", "slots"},
    {"Unit", "unit"},
    {"UseUTCTime", "utc"},
    // multicast
    {"Group", "group"},
    {"Retry", "retry"},
    {"Week", "week"},
    {"CurrentRate", "now"},
    {"NextChange", "next_change"},
    {"NextRate", "next"},
    {"Windows", "windows"},
    // actions
    {"Module", "module"},
    {"Signature", "signature"},
    {"Purpose", "purpose"},
    {"Inputs", "inputs"},
    {"Outputs", "outputs"},
    {"Results", "results"},
    {"Callers", "callers"},
    {"Changes", "changes"},
    {"Type", "type"},
    {"Optional", "optional"},
    {"Several", "several"},
    {"Remark", "remark"},
    // transfers
    {"Transfers", "transfers"},
    {"Rate", "rate"},
    // metrics
    {"Metric", "metric"},
    {"Labels", "labels"},
    {"Number", "value"},
    // audit
    {"Operator", "operator"},
    {"Master", "master"},
    {"Action", "action"},
    {"Arguments", "arguments", Form::Values},
    {"Result", "result"},
});

void Copy(const KelContainer& source, const KelString& from, std::uint32_t index, std::string_view to,
          KelContainer& target) {
    switch (source.GetType(from, index)) {
        case KelContainer::Type::Bool:
            return target.SetBool(to, source.GetBool(from, false, index), index);
        case KelContainer::Type::Int32:
        case KelContainer::Type::Int64:
            return target.SetInt64(to, source.GetInt64(from, 0, index), index);
        case KelContainer::Type::Container:
            return target.SetContainer(to, ForJson(source.GetContainer(from, index)), index);
        default:
            return target.SetString(to, source.GetString(from, {}, index), index);
    }
}

KelContainer StatusCounts(const KelContainer& counts) {
    KelContainer result;
    for (std::size_t i = 0; i < counts.GetNameCount(); ++i)
        result.SetInt64(FileStatusName(counts.GetName(i)), counts.GetInt64(counts.GetName(i)));
    return result;
}

void Put(const KelContainer& source, const KelString& from, const Name& name, KelContainer& target) {
    switch (name.form) {
        case Form::Status:
            return target.SetString(name.json, FileStatusName(source.GetString(from)));
        case Form::StatusCounts:
            return target.SetContainer(name.json, StatusCounts(source.GetContainer(from)));
        case Form::Values:
            return target.SetContainer(name.json, source.GetContainer(from));
        case Form::Path:
            return target.SetString(name.json, PathInName(source.GetString(from)));
        case Form::Percent: {
            const KelString text = source.GetString(from);
            const auto number = ParseInt64(text.substr(0, text.find(' ')));
            if (number) target.SetInt64(name.json, *number);
            return;
        }
        case Form::AsIs:
            for (std::uint32_t i = 0; i < source.Count(from); ++i)
                Copy(source, from, i, name.json, target);
    }
}

}  // namespace

KelContainer ForJson(const KelContainer& item) {
    KelContainer result;
    for (std::size_t i = 0; i < item.GetNameCount(); ++i) {
        const KelString& value = item.GetName(i);
        const auto* name = std::ranges::find(kNames, std::string_view(value), &Name::value);
        if (name != kNames.end()) Put(item, value, *name, result);
    }
    return result;
}
