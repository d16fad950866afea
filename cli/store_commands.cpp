#include <algorithm>
#include <cstdint>
#include <limits>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/relative_name.h"

namespace {

constexpr const char* kListUpstream = "ListUpstream";
constexpr const char* kFileStatus = "FileStatus";
constexpr std::uint64_t kPageFiles = 5000;

/// The value as a person reads it.
KelString ValueText(const KelContainer& file, const KelString& name) {
    if (name == kFileStatus) return FileStatusText(file.GetString(name));
    if (name == kValueFileSize || name == "TransferredBytes") return SizeText(file.GetInt64(name));
    if (name == "CreateTime") return TimeText(file.GetInt64(name));
    return name == kValueFileName ? PathInName(file.GetString(name)) : file.GetString(name);
}

KelString UnknownFile(const FileOptions& options) {
    return "there is no file " + std::to_string(options.id) + " in the store; 'kel files" +
           (options.upstream ? " --upstream" : "") + "' lists its files";
}

/// A page of the list: behind the file with the number `after`, which costs the same wherever it is; when
/// that is 0 or gone, or an older agent does not know After, behind the first `offset` files. The action's
/// result.
unsigned int ReadPage(const Remote& remote, const FilesOptions& options, std::uint64_t offset,
                      std::int32_t after, std::uint64_t limit, KelContainer& page) {
    KelContainer arguments;
    arguments.SetBool(kListUpstream, options.upstream);
    arguments.SetBool("Reasons", true);
    arguments.SetInt64("Limit", static_cast<std::int64_t>(limit));
    page = arguments;
    page.SetInt64("After", after);
    if (after > 0 && remote.CallQuietly("FileStoreListFiles", page) == kKelOk && !page.Has("TotalCount"))
        return kKelOk;
    page = arguments;
    page.SetInt64("Offset", static_cast<std::int64_t>(offset));
    return remote.Call("FileStoreListFiles", page);
}

/// Prints the files page by page, so that neither side ever holds all of them. An exit code.
int PrintPages(const Remote& remote, const FilesOptions& options, ListPrinter& printer) {
    std::uint64_t left = options.limit.value_or(std::numeric_limits<std::uint64_t>::max());
    std::uint64_t offset = options.offset;
    std::int32_t last = 0;
    for (;;) {
        const std::uint64_t wanted = std::min(left, kPageFiles);
        KelContainer page;
        if (const unsigned int result = ReadPage(remote, options, offset, last, wanted, page);
            result != kKelOk)
            return ExitCodeOf(result);
        printer.Add(page);
        const std::uint32_t listed = ItemCount(page);
        offset += listed;
        left -= listed;
        if (listed < wanted || left == 0) return kExitDone;
        last = page.GetContainer("Values", listed - 1).GetInt32("FileId");
    }
}

}  // namespace

KelContainer FileValueList(const KelContainer& file) {
    KelContainer list;
    for (std::size_t i = 0; i < file.GetNameCount(); ++i) {
        const KelString& name = file.GetName(i);
        KelContainer item;
        item.SetString("Name", name);
        item.SetString("Value", ValueText(file, name));
        list.SetContainer("Values", std::move(item), static_cast<std::uint32_t>(i));
    }
    return list;
}

int RunCommand(const CommonOptions& common, const FilesOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    const KelVector<Column> columns = {
        ValueColumn("ID", "FileId"),
        TextColumn("TYPE", kValueFileType),
        TextColumn("LABEL", kValueFileLabel),
        NameColumn("NAME"),
        {"STATUS", [](const KelContainer& item) { return FileStatusText(item.GetString(kFileStatus)); }},
        ValueColumn("HERE", "TransferredData"),
        ValueColumn("CHECKSUM", kValueFileChecksum),
        {"WAITS", [](const KelContainer& item) { return ReasonText(item.GetContainer("Reason")); }}};
    ListPrinter printer(common.json, columns);
    const int exitCode = PrintPages(*remote, options, printer);
    printer.End();
    return exitCode;
}

int RunCommand(const CommonOptions& common, const FileOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer call;
    call.SetInt32("FileId", options.id);
    if (options.upstream) call.SetBool(kListUpstream, true);
    if (const unsigned int result = remote->Call("FileStoreGetFileInfo", call); result != kKelOk)
        return ExitCodeOf(result);
    if (!call.Has("Values")) return Complain(UnknownFile(options));
    if (common.json)
        PrintJson(call);
    else
        PrintList(FileValueList(call.GetContainer("Values")), false,
                  {TextColumn("NAME", "Name"), TextColumn("VALUE", "Value")});
    return kExitDone;
}

int RunCommand(const CommonOptions& common, const InboxOptions&) {
    return PrintActionList(
        common, "DeliveryListFiles", {},
        {TextColumn("TYPE", kValueFileType), TextColumn("LABEL", kValueFileLabel), NameColumn("NAME"),
         SizeColumn("SIZE", "Size"), TimeColumn("DELIVERED", "Time"), TextColumn("PATH", "Path")});
}

int RunCommand(const CommonOptions& common, const CollectedOptions&) {
    return PrintActionList(common, "DeliveryListCollected", {},
                           {TextColumn("DEVICE", "Device"), TextColumn("TYPE", kValueFileType),
                            TextColumn("LABEL", kValueFileLabel), NameColumn("NAME"),
                            SizeColumn("SIZE", "Size"), TextColumn("PATH", "Path")});
}
