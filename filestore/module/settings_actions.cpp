#include <limits>
#include <optional>

#include "filestore/module/http_aliases.h"
#include "filestore/state/file_store.h"
#include "filestore/state/setting_table.h"
#include "filestore/state/settings.h"
#include "kel/container.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

namespace {

using Value = FileStoreSetting::Value;

/// The value that the caller gave, as the type of the setting; nothing when it cannot be one.
struct ValueReader {
    const KelContainer& values;
    const KelString& name;

    std::optional<Value> operator()(bool) const {
        const bool value = values.GetBool(name, false);
        if (values.GetBool(name, true) != value) return std::nullopt;
        return value;
    }
    std::optional<Value> operator()(std::int32_t) const {
        constexpr std::int64_t kNoNumber = std::numeric_limits<std::int64_t>::min();
        const std::int64_t value = values.GetInt64(name, kNoNumber);
        if (value < std::numeric_limits<std::int32_t>::min() ||
            value > std::numeric_limits<std::int32_t>::max())
            return std::nullopt;
        return static_cast<std::int32_t>(value);
    }
    std::optional<Value> operator()(const KelString&) const {
        if (values.IsContainer(name)) return std::nullopt;
        KelString value = values.GetString(name);
        if (HasControlCharacter(value)) return std::nullopt;
        return value;
    }
};

struct Change {
    const FileStoreSetting* setting;
    Value value;  ///< clamped
};

const FileStoreSetting* FindSetting(const KelString& name) {
    for (const FileStoreSetting& setting : FileStoreSettings())
        if (name == setting.name) return &setting;
    return nullptr;
}

/// A number that stays negative after its clamp would be held as a huge one.
bool IsUsable(const FileStoreSetting& setting, const Value& value) {
    if (const auto* number = std::get_if<std::int32_t>(&value)) return *number >= 0;
    return setting.check == nullptr || setting.check(std::get<KelString>(value));
}

/// The changes asked for, in their order; nothing, with a warning, when one of them is unusable.
std::optional<KelVector<Change>> ReadChanges(const KelContainer& values) {
    KelVector<Change> changes;
    for (std::size_t i = 0; i < values.GetNameCount(); ++i) {
        const KelString& name = values.GetName(i);
        const FileStoreSetting* setting = FindSetting(name);
        if (setting == nullptr) continue;
        const std::optional<Value> value = std::visit(ValueReader{values, name}, setting->fallback);
        if (!value || !IsUsable(*setting, setting->Clamped(*value))) {
            FileStore::debugFileStore.Warning("Setting %S cannot be '%S'; no setting was changed\n", name,
                                              values.GetString(name));
            return std::nullopt;
        }
        changes.push_back({setting, setting->Clamped(*value)});
    }
    return changes;
}

KelString IniText(const Value& value) {
    if (const auto* flag = std::get_if<bool>(&value)) return *flag ? "true" : "false";
    if (const auto* number = std::get_if<std::int32_t>(&value))
        return KelFormat("%u", static_cast<std::uint32_t>(*number));
    return std::get<KelString>(value);
}

void FollowUp(FileStoreSettingEffect effect) {
    switch (effect) {
        case FileStoreSettingEffect::None:
            break;
        case FileStoreSettingEffect::TimeToLive:
            FileStore::EnsureTimeToLive();
            break;
        case FileStoreSettingEffect::Repository:
            FileStorePublishRepositoryAlias();
            break;
        case FileStoreSettingEffect::FrameSize:
            FileStoreApplyFrameSize();
            break;
    }
}

void SetValue(KelContainer& values, const char* name, const Value& value) {
    if (const auto* flag = std::get_if<bool>(&value))
        values.SetBool(name, *flag);
    else if (const auto* number = std::get_if<std::int32_t>(&value))
        values.SetInt32(name, *number);
    else
        values.SetString(name, std::get<KelString>(value));
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreSetValues(KelContainer* arguments) {
    const auto changes = ReadChanges(arguments->GetContainer("Values"));
    if (!changes) return kKelErrorBadInput;
    for (const Change& change : *changes) {
        // First on the disk: what a restart would forget is not taken over.
        if (!FileStoreWriteSetting(change.setting->section, change.setting->key, IniText(change.value)))
            return kKelErrorInternal;
        change.setting->Store(change.value);
        FollowUp(change.setting->effect);
    }
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreGetValues(KelContainer* arguments) {
    KelContainer values;
    for (const FileStoreSetting& setting : FileStoreSettings())
        SetValue(values, setting.name, setting.Current());
    arguments->Clear();
    arguments->SetContainer("Values", std::move(values));
    return kKelOk;
}
