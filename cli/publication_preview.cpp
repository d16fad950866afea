#include "cli/publication_preview.h"

#include <cstdio>

#include "cli/hand_over.h"
#include "cli/output.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace {

KelContainer PreviewArguments(const PublishOptions& options, const KelVector<SourceFile>& files) {
    KelContainer arguments;
    arguments.SetString(kValueFileType, options.type);
    arguments.SetString(kValueFileLabel, options.label);
    for (std::uint32_t i = 0; i < files.size(); ++i) {
        arguments.SetString(kValueFilePath, CompletePath(files[i].path), i);
        arguments.SetString(kValueFileName, files[i].name, i);
    }
    for (std::uint32_t i = 0; i < options.devices.size(); ++i)
        arguments.SetString("Device", options.devices[i], i);
    for (std::uint32_t i = 0; i < options.stages.size(); ++i)
        arguments.SetInt32("Stage", options.stages[i], i);
    return arguments;
}

/// Files, targets and links as one list, each with its Kind.
KelContainer ListOf(const KelContainer& preview) {
    KelContainer list;
    for (const auto& [name, kind] :
         {std::pair("PreviewFiles", "file"), {"Targets", "target"}, {"Links", "link"}}) {
        for (std::uint32_t i = 0; i < ItemCount(preview, name); ++i) {
            KelContainer item = preview.GetContainer(name, i);
            item.SetString("Kind", kind);
            list.SetContainer("Values", std::move(item), KelContainer::kAbsent);
        }
    }
    return list;
}

void PrintTables(const KelContainer& preview, bool withStages) {
    KelVector<Column> columns = {TextColumn("TARGET", "Name"), ValueColumn("GUID", "GUID")};
    if (withStages) columns.push_back(ValueColumn("STAGE", "Stage"));
    columns.push_back(TextColumn("THROUGH", "Via"));
    PrintList(preview, false, columns, "Targets");
    std::puts("");
    PrintList(preview, false,
              {TextColumn("FROM", "From"), TextColumn("TO", "To"), ValueColumn("TARGETS", "Targets"),
               SizeColumn("BYTES", "Bytes")},
              "Links");
}

/// What the tables do not say, in a line on stderr.
void PrintSummary(const KelContainer& preview) {
    std::int64_t size = 0, onLinks = 0;
    std::uint32_t held = 0;
    for (std::uint32_t i = 0; i < ItemCount(preview, "PreviewFiles"); ++i) {
        const KelContainer& file = preview.GetContainer("PreviewFiles", i);
        size += file.GetInt64(kValueFileSize);
        if (file.GetBool("Held")) ++held;
    }
    for (std::uint32_t i = 0; i < ItemCount(preview, "Links"); ++i)
        onLinks += preview.GetContainer("Links", i).GetInt64("Bytes");
    std::fprintf(stderr, "kel: nothing was published; files: %u with %s, targets: %u, over %u links: %s%s\n",
                 ItemCount(preview, "PreviewFiles"), SizeText(size).c_str(), ItemCount(preview, "Targets"),
                 ItemCount(preview, "Links"), held > 0 ? "at most " : "", SizeText(onLinks).c_str());
    if (held > 0)
        std::fprintf(stderr,
                     "kel: %u of the files were published before; devices that still have the content do not "
                     "transfer it again\n",
                     held);
    if (const std::int32_t leftOut = preview.GetInt32("LeftOut"); leftOut > 0)
        std::fprintf(stderr, "kel: %d devices cannot be reached and are left out\n", leftOut);
}

}  // namespace

int PrintPreview(const Remote& remote, const PublishOptions& options, const KelVector<SourceFile>& files,
                 bool json) {
    KelContainer preview = PreviewArguments(options, files);
    if (const unsigned int result = remote.Call("ConsolePreview", preview, kHandOverSeconds);
        result != kKelOk)
        return ExitCodeOf(result);
    if (json)
        PrintJson(ListOf(preview));
    else
        PrintTables(preview, !options.stages.empty());
    PrintSummary(preview);
    return kExitDone;
}
