#include "cli/file_command.h"

#include "cli/commands.h"
#include "cli/file_status_text.h"
#include "cli/list_output.h"
#include "cli/remote.h"
#include "cli/table.h"

namespace {

KelString ValueText(const KelContainer& file, const KelString& name) {
    if (name == "FileStatus") return FileStatusText(file.GetString(name));
    if (name == "FileSize" || name == "TransferredBytes") return SizeText(file.GetInt64(name));
    if (name == "CreateTime") return TimeText(file.GetInt64(name));
    return file.GetString(name);
}

KelError UnknownFile(const FileOptions& options) {
    return {1, "there is no file " + std::to_string(options.id) + " in the store; 'kel files" +
                   (options.upstream ? " --upstream" : "") + "' lists them"};
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

int RunFile(const CommonOptions& common, const FileOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer call;
    call.SetInt32("FileId", options.id);
    if (options.upstream) call.SetBool("ListUpstream", true);
    if (const unsigned int result = remote->Call("FileStoreGetFileInfo", call); result != 0)
        return ExitCodeOf(result);
    if (!call.Has("Values")) return Complain(UnknownFile(options));
    if (common.json)
        PrintList(call, "Values", true, {});
    else
        PrintList(FileValueList(call.GetContainer("Values")), "Values", false,
                  {ValueColumn("NAME", "Name"), ValueColumn("VALUE", "Value")});
    return kExitDone;
}
