#include "cli/commands.h"
#include "cli/file_status_text.h"
#include "cli/list_output.h"

KelString FileStatusText(const KelString& status) {
    constexpr std::string_view kPrefix = "_AGTMOD_FILESTORESTATUS_";
    if (!status.starts_with(kPrefix) || !status.ends_with('_')) return status;
    KelString text = status.substr(kPrefix.size(), status.size() - kPrefix.size() - 1);
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c == '_') c = ' ';
    }
    return text;
}

int RunFiles(const CommonOptions& common, const FilesOptions& options) {
    KelContainer arguments;
    if (options.upstream) arguments.SetBool("ListUpstream", true);
    return PrintActionList(
        common, "FileStoreListFiles", std::move(arguments),
        {ValueColumn("ID", "FileId"),
         ValueColumn("TYPE", "FileType"),
         ValueColumn("LABEL", "FileLabel"),
         ValueColumn("NAME", "FileName"),
         {"STATUS", [](const KelContainer& item) { return FileStatusText(item.GetString("FileStatus")); }},
         ValueColumn("HERE", "TransferredData"),
         ValueColumn("CHECKSUM", "FileChecksum")});
}
