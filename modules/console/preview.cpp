#include "modules/console/preview.h"

#include <algorithm>

#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "modules/console/device_tree.h"
#include "modules/console/publication_request.h"
#include "modules/console/stage_plan.h"
#include "modules/console/target_choice.h"

namespace {

KelVector<KelString> TextsIn(const KelContainer& arguments, const char* name) {
    KelVector<KelString> texts;
    const std::uint32_t count = arguments.Has(name) ? arguments.Count(name) : 0;
    for (std::uint32_t i = 0; i < count; ++i)
        texts.push_back(arguments.GetString(name, {}, i));
    return texts;
}

bool IsHeld(const FileKey& file) {
    KelContainer call;
    file.Write(call);
    return CallLocal("FileStoreExplainFile", call) == kKelOk && call.GetBool("Known");
}

/// Checks and describes file number `index` of the arguments.
KelResult<KelContainer> DescribeFile(const KelContainer& arguments, std::uint32_t index) {
    KelContainer one;
    for (const char* name : {kValueFileType, kValueFileLabel})
        one.SetString(name, arguments.GetString(name));
    for (const char* name : {kValueFilePath, kValueFileName})
        one.SetString(name, arguments.GetString(name, {}, index));
    one.SetString("Device", "none");
    auto request = ReadPublicationRequest(one);
    if (!request) return request.Error();
    if (!FileMd5(request->sourcePath, request->file.checksum))
        return KelError{kKelErrorBadInput, KelFormat("The file %S cannot be read", request->sourcePath)};
    KelContainer values;
    values.SetString(kValueFileName, request->file.name);
    values.SetString(kValueFileChecksum, request->file.checksum);
    values.SetInt64(kValueFileSize, FileGetSize64(request->sourcePath));
    values.SetBool("Held", IsHeld(request->file));
    return values;
}

/// The links over which the targets are reached. The devices outlive it.
class Links {
  public:
    explicit Links(const KelVector<Device>& devices) : devices_(devices), ways_(devices) {}

    /// The values of a target, whose way is added to the links.
    KelContainer Add(std::size_t target, std::int32_t stage) {
        KelVector<std::size_t> way;
        KelContainer values;
        values.SetString("GUID", devices_[target].guid);
        values.SetString("Name", devices_[target].name);
        values.SetInt32("Stage", stage);
        if (!ways_.FindWayUp(target, way)) return values;
        std::ranges::reverse(way);
        std::size_t parent = 0;
        KelString place, via;
        for (const std::size_t device : way) {
            place += devices_[device].name + '\n' + devices_[device].guid + '\n';
            Link& link = links_[device];
            if (link.targets++ == 0) link = {parent, device, place, 1};
            if (device != target) via += (via.empty() ? "" : " > ") + devices_[device].name;
            parent = device;
        }
        values.SetString("Via", via);
        return values;
    }

    void Write(std::int64_t bytes, KelContainer& result) const {
        KelVector<const Link*> sorted;
        for (const auto& [device, link] : links_)
            sorted.push_back(&link);
        std::ranges::sort(sorted, {}, &Link::place);
        for (std::uint32_t i = 0; i < sorted.size(); ++i) {
            KelContainer values;
            values.SetString("From", devices_[sorted[i]->from].name);
            values.SetString("FromGuid", devices_[sorted[i]->from].guid);
            values.SetString("To", devices_[sorted[i]->to].name);
            values.SetString("ToGuid", devices_[sorted[i]->to].guid);
            values.SetInt32("Targets", sorted[i]->targets);
            values.SetInt64("Bytes", bytes);
            result.SetContainer("Links", std::move(values), i);
        }
    }

  private:
    struct Link {
        std::size_t from = 0;
        std::size_t to = 0;
        KelString
            place;  ///< names and GUIDs from the first level down to `to`: sorts parents before children
        std::int32_t targets = 0;
    };

    const KelVector<Device>& devices_;
    const DeviceWays ways_;
    KelHash<std::size_t, Link> links_;  ///< by their lower device
};

}  // namespace

KelResult<KelContainer> Previewer::Preview(const KelContainer& arguments) {
    const auto percents = ReadStagePercents(arguments);
    if (!percents) return percents.Error();
    const auto devices = directory_.Read();
    if (!devices) return devices.Error();
    const auto groups = groups_.List();
    if (!groups) return groups.Error();
    const KelVector<KelString> wanted = TextsIn(arguments, "Device");
    if (wanted.empty()) return KelError{kKelErrorBadInput, "Device is missing"};
    const auto targets = ChooseTargets(*devices, *groups, wanted);
    if (!targets) return targets.Error();

    KelContainer result;
    std::int64_t bytes = 0;
    const std::uint32_t files = arguments.Has(kValueFilePath) ? arguments.Count(kValueFilePath) : 0;
    for (std::uint32_t i = 0; i < files; ++i) {
        auto file = DescribeFile(arguments, i);
        if (!file) return file.Error();
        bytes += file->GetInt64(kValueFileSize);
        result.SetContainer("PreviewFiles", std::move(*file), i);
    }
    Links links(*devices);
    const KelVector<std::size_t> ends = StageEnds(*percents, targets->indexes.size());
    for (std::size_t i = 0; i < targets->indexes.size(); ++i)
        result.SetContainer("Targets", links.Add(targets->indexes[i], StageOf(ends, i)),
                            static_cast<std::uint32_t>(i));
    links.Write(bytes, result);
    result.SetInt32("LeftOut", static_cast<std::int32_t>(targets->leftOut.size()));
    return result;
}
