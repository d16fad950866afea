#include <algorithm>
#include <cstdio>
#include <optional>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/relative_name.h"

namespace {

/// What the devices are given to answer, and time for the way.
constexpr int kSeconds = 30;
constexpr std::size_t kPublicationIdDigits = 16;
constexpr std::size_t kMostFileIdDigits = 10;

bool IsPublicationId(const KelString& text) {
    return text.size() == kPublicationIdDigits &&
           text.find_first_not_of("0123456789abcdefABCDEF") == KelString::npos;
}

std::optional<std::int64_t> FileIdIn(const KelString& text) {
    return text.size() <= kMostFileIdDigits ? ParseInt64(text) : std::nullopt;
}

/// The latest publication of a file with this name. Empty when there is none or the agent cannot say, which
/// has been reported; `exitCode` is set then.
KelString PublicationOf(const Remote& remote, const KelString& name, int& exitCode) {
    KelContainer call;
    call.SetBool("CountsOnly", true);
    if (const unsigned int result = remote.Call("ConsoleListPublications", call); result != kKelOk) {
        exitCode = ExitCodeOf(result);
        return {};
    }
    for (std::uint32_t i = 0; i < ItemCount(call); ++i) {
        const KelContainer& publication = call.GetContainer("Values", i);
        if (publication.GetString(kValueFileName) == NameForPath(name))
            return publication.GetString("PublicationId");
    }
    exitCode = Complain("there is no publication and no published file '" + name +
                        "'; name a file of this store by its number in 'kel files'");
    return {};
}

/// What the device itself waits for comes before the targets below it.
void AddOwnReason(const KelString& address, KelContainer& answer) {
    if (!answer.Has("Reason")) return;
    KelContainer own = answer.GetContainer("Reason");
    own.SetString("Device", address);
    own.SetString("At", address);
    KelContainer list;
    list.SetContainer("Values", std::move(own));
    for (std::uint32_t i = 0; i < ItemCount(answer); ++i)
        list.SetContainer("Values", answer.GetContainer("Values", i), i + 1);
    list.SetInt32("LeftOut", answer.GetInt32("LeftOut"));
    answer = std::move(list);
}

int AskAboutFile(const Remote& remote, const WhyOptions& options, std::int64_t fileId, KelContainer& answer) {
    if (!options.device.empty() && !IsGuid(options.device))
        return Complain("the file is named by its number: name the device by its GUID");
    answer.SetInt64("FileId", fileId);
    answer.SetBool(kValueUpstream, options.upstream);
    if (!options.device.empty()) answer.SetString("GUID", options.device);
    if (const unsigned int result = remote.Call("FileStoreExplainFile", answer, kSeconds); result != kKelOk)
        return ExitCodeOf(result);
    if (!answer.GetBool("Known")) return Complain("there is no file " + options.what + " in the store");
    if (options.device.empty()) AddOwnReason(remote.Address(), answer);
    return kExitDone;
}

int AskAboutPublication(const Remote& remote, const WhyOptions& options, KelContainer& answer) {
    int exitCode = kExitDone;
    const KelString id =
        IsPublicationId(options.what) ? options.what : PublicationOf(remote, options.what, exitCode);
    if (id.empty()) return exitCode;
    answer.SetString("PublicationId", id);
    if (!options.device.empty()) answer.SetString("Device", options.device);
    const unsigned int result = remote.Call("ConsoleExplain", answer, kSeconds);
    return result == kKelOk ? kExitDone : ExitCodeOf(result);
}

/// A device by its name, or by its address where the name is not known.
KelString DeviceText(const KelContainer& item, const KelString& name, const KelString& address) {
    const KelString text = item.GetString(name);
    if (!text.empty()) return text;
    const KelString url = item.GetString(address);
    return url.substr(0, url.find('/'));
}

}  // namespace

KelString ReasonText(const KelContainer& reason) {
    KelString text = reason.GetString("Message");
    const KelString place = DeviceText(reason, "AtName", "At");
    if (!text.empty() && !place.empty()) text += " (at " + place + ")";
    return text;
}

unsigned int AddReasons(const Remote& remote, const KelString& publicationId, KelContainer& devices) {
    KelContainer answer;
    answer.SetString("PublicationId", publicationId);
    if (const unsigned int result = remote.Call("ConsoleExplain", answer, kSeconds); result != kKelOk)
        return result;
    KelHash<KelString, std::uint32_t> indexes;
    for (std::uint32_t i = 0; i < ItemCount(answer); ++i)
        indexes[answer.GetContainer("Values", i).GetString("GUID")] = i;
    for (std::uint32_t i = 0; i < ItemCount(devices, "Devices"); ++i) {
        KelContainer device = devices.GetContainer("Devices", i);
        const auto reason = indexes.find(device.GetString("GUID"));
        if (reason == indexes.end()) continue;
        device.SetContainer("Reason", answer.GetContainer("Values", reason->second));
        devices.SetContainer("Devices", std::move(device), i);
    }
    return kKelOk;
}

int RunCommand(const CommonOptions& common, const WhyOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer answer;
    const auto fileId = FileIdIn(options.what);
    const int exitCode = fileId ? AskAboutFile(*remote, options, *fileId, answer)
                                : AskAboutPublication(*remote, options, answer);
    if (exitCode != kExitDone) return exitCode;
    PrintList(answer, common.json,
              {{"DEVICE", [](const KelContainer& item) { return DeviceText(item, "Name", "Device"); }},
               {"WAITS AT", [](const KelContainer& item) { return DeviceText(item, "AtName", "At"); }},
               TextColumn("REASON", "Message"),
               TimeColumn("SINCE", "Since"),
               TimeColumn("NEXT TRY", "NextTry")});
    if (const std::int32_t leftOut = answer.GetInt32("LeftOut"); leftOut > 0)
        std::fprintf(stderr, "kel: %d more targets wait; name a device to see its reason\n", leftOut);
    return kExitDone;
}
