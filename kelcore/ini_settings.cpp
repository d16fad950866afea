#include "kelcore/ini_settings.h"

#include <algorithm>
#include <numeric>

#include "kel/format.h"
#include "kel/text.h"

namespace {

constexpr std::int64_t kMost32 = std::numeric_limits<std::int32_t>::max();

/// "a, b or c".
KelString JoinWords(const KelVector<KelString>& words) {
    KelString text;
    for (std::size_t i = 0; i < words.size(); ++i)
        text += (i == 0 ? "" : i + 1 < words.size() ? ", " : " or ") + words[i];
    return text;
}

IniValue Unusable(const IniSetting& setting, const KelString& text) {
    const KelString used = setting.fallback.empty() ? "it is ignored" : setting.fallback + " is used";
    return {setting.fallback,
            KelFormat("%s in section %s cannot be '%S': it takes %S; %S", setting.key, setting.section, text,
                      DescribeIniValues(setting), setting.isVital ? KelString("correct it") : used),
            false};
}

IniValue JudgeNumber(const IniSetting& setting, const KelString& text) {
    const auto number = ParseInt64(text);
    const bool hasSense =
        number && *number <= std::max(kMost32, setting.highest) && (*number >= 0 || setting.lowest < 0);
    if (!hasSense) return Unusable(setting, text);
    const std::int64_t used = std::clamp(*number, setting.lowest, setting.highest);
    KelString value = KelFormat("%gd", used);
    if (used == *number) return {std::move(value), {}};
    if (setting.isVital) return Unusable(setting, text);
    KelString problem = used > *number
                            ? KelFormat("%s in section %s is %gd; it is raised to %gd, the least it takes",
                                        setting.key, setting.section, *number, used)
                            : KelFormat("%s in section %s is %gd; it is lowered to %gd, the most it takes",
                                        setting.key, setting.section, *number, used);
    return {std::move(value), std::move(problem)};
}

bool IsUsableText(const IniSetting& setting, const KelString& text) {
    if (HasControlCharacter(text)) return false;
    if (setting.check != nullptr) return setting.check(text);
    return setting.choices.empty() ||
           std::any_of(setting.choices.begin(), setting.choices.end(),
                       [&text](const KelString& word) { return IsEqualTo(word, text, false); });
}

/// An empty value stands for the default where it cannot be meant otherwise.
bool IsMissing(const IniSetting& setting, const KelString& text) {
    return text.empty() && (setting.type != IniSetting::Type::Text || setting.fallback.empty());
}

/// Levenshtein's distance of two names, letters without regard to case.
std::size_t Distance(const KelString& left, const KelString& right) {
    KelVector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= left.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= right.size(); ++j) {
            const std::size_t changed = diagonal + (left[i - 1] == right[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

KelString Suggestion(const KelString& name) {
    return name.empty() ? name : KelFormat("; did you mean %S?", name);
}

IniFault UnknownSection(const KelString& section, std::span<const IniSetting> settings) {
    KelVector<KelString> names;
    for (const IniSetting& setting : settings)
        names.emplace_back(setting.section);
    return {IniFault::Weight::Note, KelFormat("section %S is unknown and is ignored%S", section,
                                              Suggestion(NearestName(section, names)))};
}

IniFault UnknownKey(const KelString& section, const KelString& key, std::span<const IniSetting> settings) {
    KelVector<KelString> names;
    KelString elsewhere;
    for (const IniSetting& setting : settings) {
        if (IsEqualTo(setting.section, section, false)) names.emplace_back(setting.key);
        if (IsEqualTo(setting.key, key, false)) elsewhere = setting.section;
    }
    const KelString hint = elsewhere.empty() ? Suggestion(NearestName(key, names))
                                             : KelFormat("; it belongs in section %S", elsewhere);
    return {IniFault::Weight::Note,
            KelFormat("%S in section %S is unknown and is ignored%S", key, section, hint)};
}

void ExamineEntry(const KelString& section, const KelString& key, const KelString& text,
                  std::span<const IniSetting> settings, KelVector<IniFault>& faults) {
    const auto setting = std::find_if(settings.begin(), settings.end(), [&](const IniSetting& candidate) {
        return candidate.Covers(section, key);
    });
    if (setting == settings.end()) return faults.push_back(UnknownKey(section, key, settings));
    if (IsMissing(*setting, text)) return;
    const IniValue value = JudgeIniValue(*setting, text);
    if (value.problem.empty()) return;
    const auto weight = setting->isVital ? IniFault::Weight::Vital : IniFault::Weight::Unusable;
    faults.push_back({value.isUsable ? IniFault::Weight::Note : weight, value.problem});
}

}  // namespace

IniSetting IniSetting::Flag(const char* section, const char* key, bool fallback) {
    return {section, key, Type::Flag, fallback ? "true" : "false"};
}

IniSetting IniSetting::Number(const char* section, const char* key, std::int64_t fallback) {
    return {section, key, Type::Number, KelFormat("%gd", fallback)};
}

IniSetting IniSetting::Text(const char* section, const char* key, KelString fallback) {
    return {section, key, Type::Text, std::move(fallback)};
}

IniSetting IniSetting::Between(std::int64_t least, std::int64_t most) const {
    IniSetting setting = *this;
    setting.lowest = least;
    setting.highest = most;
    return setting;
}

IniSetting IniSetting::OneOf(KelVector<KelString> words) const {
    IniSetting setting = *this;
    setting.choices = std::move(words);
    return setting;
}

IniSetting IniSetting::Checked(bool (*function)(const KelString&), const char* accepted) const {
    IniSetting setting = *this;
    setting.check = function;
    setting.expected = accepted;
    return setting;
}

IniSetting IniSetting::Vital() const {
    IniSetting setting = *this;
    setting.isVital = true;
    return setting;
}

bool IniSetting::Covers(const KelString& inSection, const KelString& name) const {
    if (!IsEqualTo(section, inSection, false)) return false;
    const std::string_view pattern = key;
    if (!pattern.ends_with('*')) return IsEqualTo(pattern, name, false);
    const std::string_view stem = pattern.substr(0, pattern.size() - 1);
    const std::string_view rest = std::string_view(name).substr(std::min(stem.size(), name.size()));
    return stem.empty() || (IsEqualTo(std::string_view(name).substr(0, stem.size()), stem, false) &&
                            ParseUint64(rest).has_value());
}

KelString DescribeIniValues(const IniSetting& setting) {
    if (setting.type == IniSetting::Type::Flag) return "true or false";
    if (setting.type == IniSetting::Type::Number && setting.highest < kMost32)
        return KelFormat("a number from %gd to %gd", setting.lowest, setting.highest);
    if (setting.type == IniSetting::Type::Number)
        return setting.lowest == 0 ? KelString("a number")
                                   : KelFormat("a number of at least %gd", setting.lowest);
    if (!setting.choices.empty()) return JoinWords(setting.choices);
    return setting.expected != nullptr ? setting.expected : "a text without control characters";
}

IniValue JudgeIniValue(const IniSetting& setting, const KelString& text) {
    switch (setting.type) {
        case IniSetting::Type::Flag:
            if (const auto flag = ParseIniFlag(text)) return {*flag ? "true" : "false", {}};
            return Unusable(setting, text);
        case IniSetting::Type::Number:
            return JudgeNumber(setting, text);
        case IniSetting::Type::Text:
            break;
    }
    return IsUsableText(setting, text) ? IniValue{text, {}} : Unusable(setting, text);
}

KelString ReadIniText(const IniFile& ini, const IniSetting& setting) {
    KelString text;
    if (!ini.GetEntryValue(setting.section, setting.key, text, setting.fallback)) return setting.fallback;
    return IsMissing(setting, text) ? setting.fallback : JudgeIniValue(setting, text).text;
}

std::int64_t ReadIniNumber(const IniFile& ini, const IniSetting& setting) {
    return ParseInt64(ReadIniText(ini, setting)).value_or(0);
}

bool ReadIniFlag(const IniFile& ini, const IniSetting& setting) {
    return ReadIniText(ini, setting) == "true";
}

KelVector<IniFault> FindIniFaults(const IniFile& ini, std::span<const IniSetting> settings) {
    KelVector<IniFault> faults;
    for (const auto& [key, text] : ini.GetEntries({}))
        faults.push_back(
            {IniFault::Weight::Note, KelFormat("%S stands before the first section and is ignored", key)});
    for (const KelString& section : ini.GetSections()) {
        const bool isKnown = std::any_of(
            settings.begin(), settings.end(),
            [&section](const IniSetting& setting) { return IsEqualTo(setting.section, section, false); });
        if (!isKnown) {
            faults.push_back(UnknownSection(section, settings));
            continue;
        }
        for (const auto& [key, text] : ini.GetEntries(section))
            ExamineEntry(section, key, text, settings, faults);
    }
    return faults;
}

KelString NearestName(const KelString& misspelt, const KelVector<KelString>& names) {
    const KelString wanted = ToLowerText(misspelt);
    KelString nearest;
    // More changes than a third of the letters make another word.
    std::size_t least = std::max<std::size_t>(2, wanted.size() / 3) + 1;
    for (const KelString& name : names) {
        const std::size_t distance = Distance(wanted, ToLowerText(name));
        if (distance >= least) continue;
        least = distance;
        nearest = name;
    }
    return nearest;
}
