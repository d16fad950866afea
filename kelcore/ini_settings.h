#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <span>

#include "kel/ini_file.h"
#include "kel/types.h"

// What the entries of ini files take. Each module lists its entries once; its start, `kelagent --check` and
// the actions that change settings judge values by that list.

/// One entry of an ini file. Made by one of the functions below, then narrowed.
struct IniSetting {
    enum class Type : unsigned char { Flag, Number, Text };

    const char* section;
    const char* key;  ///< "Sql*": the keys Sql1, Sql2, …; "*": every key of the section
    Type type;
    KelString fallback;  ///< used when the value is missing or unusable
    std::int64_t lowest = 0;
    std::int64_t highest = std::numeric_limits<std::int32_t>::max();
    KelVector<KelString> choices = {};          ///< of a text, case ignored; none: any
    bool (*check)(const KelString&) = nullptr;  ///< of a text
    const char* expected = nullptr;             ///< what `check` accepts, as "a host name"
    bool isVital = false;                       ///< the module does not start with an unusable value

    static IniSetting Flag(const char* section, const char* key, bool fallback);
    /// A number from 0 to the largest of 32 bits.
    static IniSetting Number(const char* section, const char* key, std::int64_t fallback);
    static IniSetting Text(const char* section, const char* key, KelString fallback = {});

    IniSetting Between(std::int64_t least, std::int64_t most) const;
    IniSetting OneOf(KelVector<KelString> words) const;
    IniSetting Checked(bool (*function)(const KelString&), const char* accepted) const;
    IniSetting Vital() const;

    /// True for entries that this setting describes.
    bool Covers(const KelString& inSection, const KelString& name) const;
};

/// A text judged as the value of a setting.
struct IniValue {
    KelString text;     ///< the value to use: "true" or "false", a number, or the text itself
    KelString problem;  ///< one line that names entry, text and what is used instead; empty when it is fine
    /// False: `text` is the fallback. True with a problem: a number that was moved to the nearer bound.
    bool isUsable = true;
};

/// Judges `text`. A number beyond its bounds is moved to the nearer one. Unusable are a negative number where
/// none is allowed, one that does not fit into 32 bits (unless a bound does not), and every number beyond the
/// bounds of a vital setting.
IniValue JudgeIniValue(const IniSetting& setting, const KelString& text);

/// What a setting takes, as "a number from 0 to 100" or "master, relay or client".
KelString DescribeIniValues(const IniSetting& setting);

/// The value to use of a setting in `ini`, without any complaint. An empty flag or number counts as missing.
KelString ReadIniText(const IniFile& ini, const IniSetting& setting);
std::int64_t ReadIniNumber(const IniFile& ini, const IniSetting& setting);
bool ReadIniFlag(const IniFile& ini, const IniSetting& setting);

struct IniFault {
    enum class Weight : unsigned char {
        Note,      ///< an unknown entry, or a number that was moved into its bounds
        Unusable,  ///< the default is used, or the entry is ignored
        Vital      ///< the module does not start
    };
    Weight weight;
    KelString text;  ///< one line without the name of the file
};

/// What is wrong in `ini` according to all settings of its module, in the order of the file.
KelVector<IniFault> FindIniFaults(const IniFile& ini, std::span<const IniSetting> settings);

/// The name closest to a misspelt one, by the number of letters to change; empty when none is near.
KelString NearestName(const KelString& misspelt, const KelVector<KelString>& names);
