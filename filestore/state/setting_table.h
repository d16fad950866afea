#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <variant>

#include "kel/types.h"
#include "kelcore/ini_settings.h"

/// When a setting is read from the ini file.
enum class FileStoreSettingRead { AtInitialisation, AtActivation, WhenUsed };

/// What must be done after a setting has changed at run time.
enum class FileStoreSettingEffect { None, TimeToLive, Repository, FrameSize };

/// One setting of the module: its name for the settings actions, its entry in the ini file, its member.
struct FileStoreSetting {
    using Flag = std::atomic<bool>;
    using Number = std::atomic<std::uint32_t>;
    using SignedNumber = std::atomic<std::int32_t>;

    /// Where the value is held; texts under mutexSettings. Empty: the value stands in the ini file only.
    using Member = std::variant<std::monostate, Flag*, Number*, SignedNumber*, KelString*>;
    using Value = std::variant<bool, std::int32_t, KelString>;

    const char* name;
    IniSetting entry;
    Member member;
    void (*apply)(const KelString&) = nullptr;  ///< texts only: updates what depends on the text
    KelString (*current)() = nullptr;           ///< texts without a member: the value in force
    FileStoreSettingEffect effect = FileStoreSettingEffect::None;
    FileStoreSettingRead read = FileStoreSettingRead::AtInitialisation;
    bool isLocal = false;         ///< names a folder, which only the device's own operator may do
    std::int64_t leastToSet = 0;  ///< numbers only: a change at run time goes no lower, the ini file may

    /// The value that a text which JudgeIniValue has given stands for.
    Value FromText(const KelString& text) const;
    /// Stores a usable value in its member and applies it.
    void Store(const Value& value) const;
    /// The value in force: of the member, or of the ini file where there is none.
    Value Current() const;
    /// The value to use of the ini file.
    Value Read() const;
};

/// All settings that the settings actions know, in the order in which they are listed.
std::span<const FileStoreSetting> FileStoreSettings();

/// All entries of the ini file, those that only the module itself reads included.
std::span<const IniSetting> FileStoreIniSettings();

/// The entry that is listed under these names, for a value that is needed too rarely to be kept.
const IniSetting& FileStoreIniSetting(const KelString& section, const KelString& key);
