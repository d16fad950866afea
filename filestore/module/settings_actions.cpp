#include <algorithm>

#include "filestore/module/http_aliases.h"
#include "filestore/state/file_store.h"
#include "filestore/state/setting_table.h"
#include "filestore/state/settings.h"
#include "kel/container.h"
#include "kel/format.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"

namespace {

using Value = FileStoreSetting::Value;

struct Change {
    const FileStoreSetting* setting;
    IniValue judged;
};

const FileStoreSetting* FindSetting(const KelString& name) {
    for (const FileStoreSetting& setting : FileStoreSettings())
        if (name == setting.name) return &setting;
    return nullptr;
}

KelString UnknownSetting(const KelString& name) {
    KelVector<KelString> names;
    for (const FileStoreSetting& setting : FileStoreSettings())
        names.emplace_back(setting.name);
    const KelString nearest = NearestName(name, names);
    return KelFormat("There is no setting %S%S", name,
                     nearest.empty() ? nearest : KelFormat("; did you mean %S?", nearest));
}

/// A container has no text.
IniValue Judge(const FileStoreSetting& setting, const KelContainer& values) {
    if (values.IsContainer(setting.name))
        return {{}, KelFormat("%s cannot be a container", setting.name), false};
    IniSetting entry = setting.entry;
    entry.lowest = std::max(entry.lowest, setting.leastToSet);
    return JudgeIniValue(entry, values.GetString(setting.name));
}

/// What a caller may want to know of changes that were made.
using Notes = KelVector<KelString>;

/// The changes asked for, in their order, or the error for the first unusable one.
KelResult<KelVector<Change>> ReadChanges(const KelContainer& arguments, Notes& notes) {
    const KelContainer& values = arguments.GetContainer("Values");
    KelVector<Change> changes;
    for (std::size_t i = 0; i < values.GetNameCount(); ++i) {
        const KelString& name = values.GetName(i);
        const FileStoreSetting* setting = FindSetting(name);
        if (setting == nullptr) {
            notes.push_back(UnknownSetting(name));
            continue;
        }
        if (setting->isLocal && !ActionIsFromThisDevice(arguments))
            return KelError{kKelErrorNotAvailable,
                            KelFormat("%S names a folder of the device, and is set on the device itself. No "
                                      "setting was changed",
                                      name)};
        Change change{setting, Judge(*setting, values)};
        if (!change.judged.isUsable)
            return KelError{kKelErrorBadInput,
                            KelFormat("%S cannot be '%S': it takes %S. No setting was changed", name,
                                      values.GetString(name), DescribeIniValues(setting->entry))};
        changes.push_back(std::move(change));
    }
    return changes;
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

/// Notes the values that were moved into their bounds, by themselves or by other settings.
void AddAdjusted(const KelVector<Change>& changes, Notes& notes) {
    for (const Change& change : changes) {
        const FileStoreSetting& setting = *change.setting;
        if (!change.judged.problem.empty()) {
            notes.push_back(change.judged.problem);
        } else if (setting.effect == FileStoreSettingEffect::TimeToLive) {
            const Value inForce = setting.Current();
            if (inForce != setting.FromText(change.judged.text))
                notes.push_back(KelFormat("%s is %S; it is raised to %d, the largest of the time-outs",
                                          setting.name, change.judged.text, std::get<std::int32_t>(inForce)));
        }
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
    Notes notes;
    const auto changes = arguments->IsContainer("Values")
                             ? ReadChanges(*arguments, notes)
                             : KelResult<KelVector<Change>>(
                                   KelError{kKelErrorBadInput, "Values is missing or is no container"});
    arguments->Clear();
    if (!changes) {
        debugFileStore.Warning("%S\n", changes.Error().message);
        arguments->SetString("Message", changes.Error().message);
        return changes.Error().code;
    }
    for (const Change& change : *changes) {
        const IniSetting& entry = change.setting->entry;
        // First on the disk: what a restart would forget is not taken over.
        if (!FileStoreWriteSetting(entry.section, entry.key, change.judged.text)) {
            arguments->SetString("Message", KelFormat("%S cannot be written, and the changes end before %s",
                                                      strModuleIniFile, change.setting->name));
            return kKelErrorInternal;
        }
        change.setting->Store(change.setting->FromText(change.judged.text));
        FollowUp(change.setting->effect);
    }
    AddAdjusted(*changes, notes);
    for (std::size_t i = 0; i < notes.size(); ++i) {
        debugFileStore.Warning("%S\n", notes[i]);
        arguments->SetString("Notes", notes[i], static_cast<std::uint32_t>(i));
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
