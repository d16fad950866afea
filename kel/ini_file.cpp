#include "kel/ini_file.h"

#include <sys/stat.h>
#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>

#include "kel/file.h"
#include "kel/format.h"
#include "kel/text.h"

namespace {

constexpr std::uint64_t kMaxIniBytes = std::uint64_t{16} << 20;
constexpr unsigned int kNewFileMode = 0600;

/// One line of the file as it stands there. A write changes single lines and leaves the others byte for byte.
struct Line {
    enum class Kind : unsigned char { Other, Section, Entry };
    KelString text;  ///< without its line feed
    Kind kind = Kind::Other;
    KelString name;   ///< of the section or key
    KelString value;  ///< of an entry, trimmed
};

/// Nothing when `text` is neither blank, comment, [section] nor key=value.
std::optional<Line> ParseLine(KelString text) {
    Line line;
    line.text = std::move(text);
    const KelString content = Trim(line.text);
    if (content.find('\0') != KelString::npos) return std::nullopt;
    if (content.empty() || content[0] == ';' || content[0] == '#') return line;
    if (content[0] == '[') {
        const std::size_t end = content.find(']');
        if (end == KelString::npos) return std::nullopt;
        line.kind = Line::Kind::Section;
        line.name = Trim(content.substr(1, end - 1));
        return line;
    }
    const std::size_t equals = content.find('=');
    if (equals == KelString::npos) return std::nullopt;
    line.kind = Line::Kind::Entry;
    line.name = Trim(content.substr(0, equals));
    line.value = Trim(content.substr(equals + 1));
    if (line.name.empty()) return std::nullopt;
    return line;
}

KelStatus CheckEntry(const KelString& section, const KelString& key, const KelString& value) {
    for (const KelString* text : {&section, &key, &value})
        if (HasControlCharacter(*text))
            return KelError{kKelFailure, KelFormat("Control characters cannot stand in an ini file: [%S] %S",
                                                   section, key)};
    const bool isName = !key.empty() && key == Trim(key) && key.find('=') == KelString::npos &&
                        key.find_first_of("[;#") != 0 && section.find(']') == KelString::npos &&
                        section == Trim(section);
    if (isName) return {};
    return KelError{kKelFailure, KelFormat("Not a name for an ini entry: [%S] %S", section, key)};
}

}  // namespace

struct IniFile::Content {
    KelString path;
    KelVector<Line> lines;

    bool Load();
    KelString Text() const;
    const KelString* Find(const KelString& section, const KelString& key) const;
    void Set(const KelString& section, const KelString& key, const KelString& value);

    /// Calls visit(position) for every entry of a section, which may stand in several places.
    template <class Visit>
    void ForEachEntry(const KelString& section, Visit visit) const {
        bool inside = section.empty();
        for (std::size_t i = 0; i < lines.size(); ++i) {
            if (lines[i].kind == Line::Kind::Section) inside = IsEqualTo(lines[i].name, section, false);
            if (inside && lines[i].kind == Line::Kind::Entry) visit(i);
        }
    }
};

bool IniFile::Content::Load() {
    lines.clear();
    const KelResult<KelString> read = FileReadText(path, kMaxIniBytes);
    if (!read && read.Error().code == kKelPathNotFound) return true;
    if (!read) {
        std::fprintf(stderr, "%s\n", read.Error().message.c_str());
        return false;
    }
    std::string_view text = *read;
    // The byte order mark that some editors write. A second one must not become that of the rewritten file.
    while (text.starts_with("\xEF\xBB\xBF"))
        text.remove_prefix(3);
    if (text.ends_with('\n')) text.remove_suffix(1);
    if (text.empty()) return true;
    for (KelString& piece : SplitText(text, '\n')) {
        std::optional<Line> line = ParseLine(std::move(piece));
        if (!line) {
            std::fprintf(stderr, "The ini file \"%s\" is refused: line %zu is no section, entry or comment\n",
                         path.c_str(), lines.size() + 1);
            return false;
        }
        lines.push_back(std::move(*line));
    }
    return true;
}

KelString IniFile::Content::Text() const {
    KelString text;
    for (const Line& line : lines)
        text += line.text + "\n";
    return text;
}

const KelString* IniFile::Content::Find(const KelString& section, const KelString& key) const {
    const KelString* value = nullptr;
    ForEachEntry(section, [&](std::size_t i) {
        if (IsEqualTo(lines[i].name, key, false)) value = &lines[i].value;  // the last one counts
    });
    return value;
}

void IniFile::Content::Set(const KelString& section, const KelString& key, const KelString& value) {
    Line entry;
    entry.kind = Line::Kind::Entry;
    entry.name = key;
    entry.value = Trim(value);
    entry.text = key + "=" + entry.value;
    std::optional<std::size_t> same;
    std::optional<std::size_t> lastOfSection;
    ForEachEntry(section, [&](std::size_t i) {
        lastOfSection = i;
        if (IsEqualTo(lines[i].name, key, false)) same = i;
    });
    for (std::size_t i = 0; i < lines.size() && !lastOfSection; ++i)
        if (lines[i].kind == Line::Kind::Section && IsEqualTo(lines[i].name, section, false))
            lastOfSection = i;
    if (same) {
        // Keeps the line end of a file from Windows.
        if (lines[*same].text.ends_with('\r')) entry.text += '\r';
        lines[*same] = std::move(entry);
    } else if (lastOfSection || section.empty()) {
        const std::size_t position = lastOfSection ? *lastOfSection + 1 : 0;
        lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(position), std::move(entry));
    } else {
        if (!lines.empty()) lines.emplace_back();
        lines.push_back({"[" + section + "]", Line::Kind::Section, section, {}});
        lines.push_back(std::move(entry));
    }
}

std::optional<bool> ParseIniFlag(std::string_view text) {
    for (const char* word : {"true", "yes", "on", "1"})
        if (IsEqualTo(text, word, false)) return true;
    for (const char* word : {"false", "no", "off", "0"})
        if (IsEqualTo(text, word, false)) return false;
    return std::nullopt;
}

IniFile::IniFile() = default;
IniFile::~IniFile() = default;
IniFile::IniFile(IniFile&& other) noexcept = default;
IniFile& IniFile::operator=(IniFile&& other) noexcept = default;

const KelString& IniFile::Path() const {
    static const KelString none;
    return content_ ? content_->path : none;
}

bool IniFile::Open(const KelString& path) {
    Close();
    auto content = std::make_unique<Content>();
    content->path = path;
    if (!content->Load()) return false;
    content_ = std::move(content);
    return true;
}

void IniFile::Close() {
    content_.reset();
}

bool IniFile::GetEntryValue(const KelString& section, const KelString& key, int& value, int fallback) const {
    value = fallback;
    const KelString* text = content_ ? content_->Find(section, key) : nullptr;
    if (text == nullptr) return false;
    const auto number = ParseInt64(*text);
    if (number && std::in_range<int>(*number)) value = static_cast<int>(*number);
    return true;
}

bool IniFile::GetEntryValue(const KelString& section, const KelString& key, bool& value,
                            bool fallback) const {
    const KelString* text = content_ ? content_->Find(section, key) : nullptr;
    value = text != nullptr ? ParseIniFlag(*text).value_or(fallback) : fallback;
    return text != nullptr;
}

bool IniFile::GetEntryValue(const KelString& section, const KelString& key, KelString& value,
                            const KelString& fallback) const {
    const KelString* text = content_ ? content_->Find(section, key) : nullptr;
    // `fallback` may be the very object that `value` is.
    KelString found = text != nullptr ? *text : fallback;
    value = std::move(found);
    return text != nullptr;
}

KelVector<KelString> IniFile::GetSections() const {
    KelVector<KelString> sections;
    if (!content_) return sections;
    for (const Line& line : content_->lines) {
        const auto isSame = [&](const KelString& known) { return IsEqualTo(known, line.name, false); };
        if (line.kind == Line::Kind::Section && std::none_of(sections.begin(), sections.end(), isSame))
            sections.push_back(line.name);
    }
    return sections;
}

KelVector<KelString> IniFile::GetKeys(const KelString& section) const {
    KelVector<KelString> keys;
    for (auto& [key, value] : GetEntries(section))
        keys.push_back(std::move(key));
    return keys;
}

KelVector<std::pair<KelString, KelString>> IniFile::GetEntries(const KelString& section) const {
    KelVector<std::pair<KelString, KelString>> entries;
    if (!content_) return entries;
    KelHash<KelString, std::size_t> seen;
    content_->ForEachEntry(section, [&](std::size_t i) {
        const auto& line = content_->lines[i];
        const auto [place, isNew] = seen.emplace(ToLowerText(line.name), entries.size());
        if (isNew) entries.emplace_back(line.name, line.value);
        entries[place->second].second = line.value;  // the last one counts
    });
    return entries;
}

KelStatus IniFile::WriteEntryValue(const KelString& section, const KelString& key, const KelString& value) {
    return WriteEntryValues(section, {{key, value}});
}

KelStatus IniFile::WriteEntryValues(const KelString& section,
                                    const KelVector<std::pair<KelString, KelString>>& entries) {
    if (!content_) return KelError{kKelFailure, "An ini file must be opened before a value is written to it"};
    for (const auto& [key, value] : entries)
        if (KelStatus checked = CheckEntry(section, key, value); !checked) return checked;

    // What other objects wrote since Open stays.
    Content fresh;
    fresh.path = content_->path;
    if (!fresh.Load())
        return KelError{kKelFailure,
                        KelFormat("The ini file \"%S\" cannot be read back; correct it", fresh.path)};
    for (const auto& [key, value] : entries)
        fresh.Set(section, key, value);
    struct stat status {};
    const bool exists = ::stat(fresh.path.c_str(), &status) == 0;
    KelStatus written =
        FileWriteText(fresh.path, fresh.Text(), exists ? status.st_mode & 07777 : kNewFileMode);
    if (written) *content_ = std::move(fresh);
    return written;
}
