#include <sys/stat.h>
#include <cstdio>
#include <string_view>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/file.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

namespace {

constexpr mode_t kReadableByAll = 0644;

/// One sample, from the line "name{labels} value".
KelContainer SampleOf(const KelString& line) {
    const std::size_t blank = line.rfind(' ');
    const KelString series = line.substr(0, blank);
    const std::size_t labels = series.find('{');
    KelContainer sample;
    sample.SetString("Metric", series.substr(0, labels));
    sample.SetString("Labels", labels == KelString::npos ? KelString() : series.substr(labels));
    sample.SetString("Number", line.substr(blank + 1));
    return sample;
}

KelContainer SamplesOf(const KelString& text) {
    KelContainer list;
    for (const KelString& line : SplitText(text, '\n'))
        if (!line.empty() && line.front() != '#')
            list.SetContainer("Values", SampleOf(line), KelContainer::kAbsent);
    return list;
}

/// node_exporter has metrics of its own process under these names, and refuses to give any when a file has
/// them once more.
KelString WithoutProcess(const KelString& text) {
    KelString kept;
    for (const KelString& line : SplitText(text, '\n'))
        if (!line.empty() && !line.starts_with("process_") && line.find(" process_") == KelString::npos)
            kept += line + "\n";
    return kept;
}

/// Beside its place and then renamed, so that no reader finds a part of it.
int WriteFile(const KelString& path, const KelString& text) {
    const KelString temporary = path + ".tmp";
    std::FILE* const file = std::fopen(temporary.c_str(), "we");
    const bool isWritten = file != nullptr && std::fwrite(text.data(), 1, text.size(), file) == text.size();
    const bool isClosed = file != nullptr && std::fclose(file) == 0;
    if (isWritten && isClosed && chmod(temporary.c_str(), kReadableByAll) == 0 &&
        std::rename(temporary.c_str(), path.c_str()) == 0)
        return kExitDone;
    const int failure =
        Complain(path + " cannot be written; check its folder, its rights and the space there");
    if (file != nullptr) std::remove(temporary.c_str());
    return failure;
}

}  // namespace

int RunCommand(const CommonOptions& common, const MetricsOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer answer;
    if (const unsigned int result = remote->Call("AgentGetMetrics", answer); result != kKelOk)
        return ExitCodeOf(result);
    const KelString text = answer.GetString("Text");
    if (!options.output.empty()) return WriteFile(options.output, WithoutProcess(text));
    if (common.json)
        PrintJson(SamplesOf(text));
    else
        std::fputs(text.c_str(), stdout);
    return kExitDone;
}
