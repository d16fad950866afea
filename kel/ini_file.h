#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "kel/result.h"
#include "kel/types.h"

/// A flag as ini files hold it: true/false, yes/no, on/off, 1/0, in any case.
std::optional<bool> ParseIniFlag(std::string_view text);

/// An ini file: sections of key=value lines, with comment lines that begin with ";" or "#". A write changes
/// the line of its entry and leaves all others alone, including what other objects have written since. Names
/// of sections and keys are compared without regard to case; of entries with the same name the last counts.
/// Entries before the first section are those of section "". One thread at a time per object; writes replace
/// the file atomically, so readers in other objects see the old or the new text.
class IniFile {
  public:
    IniFile();
    ~IniFile();
    IniFile(IniFile&& other) noexcept;
    IniFile& operator=(IniFile&& other) noexcept;

    /// Reads `path`. A missing file counts as empty (every value then has its default); false when it cannot
    /// be read or is malformed: over 16 MiB, or with a line that is no section, entry, comment or blank one
    /// (reported on stderr).
    bool Open(const KelString& path);
    void Close();

    /// The path that it was opened with; empty when it is not open.
    const KelString& Path() const;

    /// The value at (section, key), or `fallback` when it is missing or not of that type; true when it was
    /// present. Integers are decimal; bools are as in ParseIniFlag.
    bool GetEntryValue(const KelString& section, const KelString& key, int& value, int fallback) const;
    bool GetEntryValue(const KelString& section, const KelString& key, bool& value, bool fallback) const;
    bool GetEntryValue(const KelString& section, const KelString& key, KelString& value,
                       const KelString& fallback) const;

    /// The names of the sections in the order of the file, each once; without "".
    KelVector<KelString> GetSections() const;

    /// The keys of a section in the order of the file; empty when there is no such section.
    KelVector<KelString> GetKeys(const KelString& section) const;

    /// Keys and values of a section in the order of GetKeys: one pass, for sections with many entries.
    KelVector<std::pair<KelString, KelString>> GetEntries(const KelString& section) const;

    /// Sets a value and writes the file at once (temporary file, sync, rename; mode of the old file kept).
    KelStatus WriteEntryValue(const KelString& section, const KelString& key, const KelString& value);

    /// The same for several values of a section, in one write.
    KelStatus WriteEntryValues(const KelString& section,
                               const KelVector<std::pair<KelString, KelString>>& entries);

  private:
    struct Content;
    std::unique_ptr<Content> content_;
};
