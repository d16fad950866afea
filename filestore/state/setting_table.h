#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <variant>

#include "kel/types.h"

/// When a setting is read from the ini file.
enum class FileStoreSettingRead { AtInitialisation, AtActivation, WhenUsed };

/// What must be done after a setting has changed at run time.
enum class FileStoreSettingEffect { None, TimeToLive, Repository, FrameSize };

/// One setting of the module: its name for the settings actions, its place in the ini file, its member.
struct FileStoreSetting {
    using Flag = std::atomic<bool>;
    using Number = std::atomic<std::uint32_t>;
    using SignedNumber = std::atomic<std::int32_t>;

    /// Where the value is held; texts under mutexSettings. Empty: the value stands in the ini file only.
    using Member = std::variant<std::monostate, Flag*, Number*, SignedNumber*, KelString*>;
    /// The default; its type is the type of the setting.
    using Value = std::variant<bool, std::int32_t, KelString>;

    const char* name;
    const char* section;
    const char* key;
    Value fallback;
    Member member;
    std::int32_t (*clamp)(std::int32_t) = nullptr;  ///< numbers only: the value to use
    bool (*check)(const KelString&) = nullptr;      ///< texts only: it is well-formed
    void (*apply)(const KelString&) = nullptr;      ///< texts only: updates what depends on the text
    KelString (*current)() = nullptr;               ///< texts without a member: the value in force
    FileStoreSettingEffect effect = FileStoreSettingEffect::None;
    FileStoreSettingRead read = FileStoreSettingRead::AtInitialisation;

    /// Stores a value of the setting's type in its member, clamped, and applies it. Of a malformed list of
    /// addresses the well-formed items are used.
    void Store(const Value& value) const;
    /// The value to use for `value`: numbers clamped.
    Value Clamped(const Value& value) const;
    /// The value in force: of the member, or of the ini file where there is none.
    Value Current() const;
    /// The value in the ini file, or the default.
    Value Read() const;
};

/// All settings that the settings actions know, in the order in which they are listed.
std::span<const FileStoreSetting> FileStoreSettings();
