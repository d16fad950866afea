#include "modules/core_utils/core_utils.h"

#include "kel/ini_file.h"
#include "kelcore/action_db.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"

CoreUtils::CoreUtils() : KelModule("CoreUtils", "Core utilities") {}

void CoreUtils::Register(const char* handle) {
    ActionDbRegisterAction(
        "CoreUtilsExtractFile (string FilePath, string DestinationPath)",
        [this](KelContainer* arguments) { return ExtractFile(arguments); }, handle);
}

bool CoreUtils::Initialise() {
    IniFile ini;
    if (!ini.Open(IniPath())) {
        Log().Error("%S cannot be read; correct or remove it\n", IniPath());
        return false;
    }
    int entries = 0, megabytes = 0, ratio = 0;
    ini.GetEntryValue("Extract", "MaxEntries", entries, 10000);
    ini.GetEntryValue("Extract", "MaxMegabytes", megabytes, 4096);
    ini.GetEntryValue("Extract", "MaxRatio", ratio, 1000);
    if (entries <= 0 || megabytes <= 0 || ratio <= 0) {
        Log().Error("%S: the limits of section Extract must be above 0\n", IniPath());
        return false;
    }
    limits_ = {static_cast<std::uint64_t>(entries), static_cast<std::uint64_t>(megabytes) << 20,
               static_cast<std::uint64_t>(ratio)};
    return true;
}

unsigned int CoreUtils::ExtractFile(KelContainer* arguments) {
    const KelString archive = arguments->GetString("FilePath");
    const KelString destination = arguments->GetString("DestinationPath");
    const bool isLocalCall = ActionIsFromThisDevice(*arguments);
    ExtractionLimits limits = limits_;
    if (const std::int64_t entries = arguments->GetInt64("MaxEntries"); entries > 0)
        limits.entries = std::min(limits.entries, static_cast<std::uint64_t>(entries));
    if (const std::int64_t bytes = arguments->GetInt64("MaxBytes"); bytes > 0)
        limits.bytes = std::min(limits.bytes, static_cast<std::uint64_t>(bytes));
    arguments->Clear();
    if (!isLocalCall || archive.empty() || destination.empty()) {
        Log().Warning(
            "Refusing to extract '%S' to '%S': both paths are needed, from a caller on this device\n",
            archive, destination);
        return kKelErrorBadInput;
    }
    const KelStatus extracted = ExtractArchive(archive, destination, limits);
    if (extracted) return kKelOk;
    Log().Warning("Archive '%S' was not extracted: %S\n", archive, extracted.Error().message);
    arguments->SetString("Message", extracted.Error().message);
    return extracted.Error().code;
}
