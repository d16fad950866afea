#include "modules/core_utils/core_utils.h"

#include <array>
#include <limits>

#include "kel/ini_file.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();

const std::array kSettings = {IniSetting::Number("Extract", "MaxEntries", 10000).Between(1, kMost),
                              IniSetting::Number("Extract", "MaxMegabytes", 4096).Between(1, kMost),
                              IniSetting::Number("Extract", "MaxRatio", 1000).Between(1, kMost)};

}  // namespace

CoreUtils::CoreUtils() : KelModule("CoreUtils", "Core utilities") {}

void CoreUtils::Register(const char* handle) {
    ActionDbRegisterActions<CoreUtils>(
        *this, handle,
        {{&CoreUtils::ExtractFile,
          {.signature = "CoreUtilsExtractFile (string FilePath, string DestinationPath)",
           .purpose = "Unpacks a zip archive into a folder, the whole archive or nothing.",
           .inputs = "string FilePath, string DestinationPath, int32 MaxEntries?, int64 MaxBytes?, "
                     "bool Numbered? (entry N, counted from 0, becomes the file \"N\")",
           .results =
               "1 unusable; 13 no such archive; 16001 an entry that leaves the "
               "destination, is a link, occurs twice or is encrypted; 16002 too many entries or bytes; "
               "16003 the archive is damaged; 18 the destination cannot be written",
           .callers = KelCallers::Local}}});
}

bool CoreUtils::Initialise() {
    IniFile ini;
    if (!ini.Open(IniPath())) return false;
    const auto limit = [&ini](const IniSetting& setting) {
        return static_cast<std::uint64_t>(ReadIniNumber(ini, setting));
    };
    limits_ = {limit(kSettings[0]), limit(kSettings[1]) << 20, limit(kSettings[2])};
    return true;
}

std::span<const IniSetting> CoreUtils::IniSettings() const {
    return kSettings;
}

unsigned int CoreUtils::ExtractFile(KelContainer* arguments) {
    const KelString archive = arguments->GetString("FilePath");
    const KelString destination = arguments->GetString("DestinationPath");
    ExtractionLimits limits = limits_;
    if (const std::int64_t entries = arguments->GetInt64("MaxEntries"); entries > 0)
        limits.entries = std::min(limits.entries, static_cast<std::uint64_t>(entries));
    if (const std::int64_t bytes = arguments->GetInt64("MaxBytes"); bytes > 0)
        limits.bytes = std::min(limits.bytes, static_cast<std::uint64_t>(bytes));
    const auto layout = arguments->GetBool("Numbered") ? ExtractionLayout::Numbered : ExtractionLayout::Names;
    arguments->Clear();
    if (archive.empty() || destination.empty()) {
        Log().Warning("Refusing to extract '%S' to '%S': both paths are needed\n", archive, destination);
        return kKelErrorBadInput;
    }
    const KelStatus extracted = ExtractArchive(archive, destination, limits, layout);
    if (extracted) return kKelOk;
    Log().Warning("Archive '%S' was not extracted: %S\n", archive, extracted.Error().message);
    arguments->SetString("Message", extracted.Error().message);
    return extracted.Error().code;
}
