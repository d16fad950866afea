#include "modules/transfer_window/window_file.h"

#include "kel/file.h"
#include "kel/format.h"
#include "kel/ini_file.h"
#include "kelcore/error_codes.h"
#include "modules/transfer_window/week_text.h"

namespace {

struct WindowEntries {
    explicit WindowEntries(TransferDirection direction)
        : week(IniSetting::Text(WindowSection(direction), "Week")),
          slots(IniSetting::Text(WindowSection(direction), "Slots")),
          slotType(IniSetting::Number(WindowSection(direction), "SlotType", WeeklyWindow().slotType)),
          useUtcTime(IniSetting::Flag(WindowSection(direction), "UseUTCTime", false)) {}

    IniSetting week;
    IniSetting slots;
    IniSetting slotType;
    IniSetting useUtcTime;
};

/// Sets an entry, unless it would be added without a value.
KelStatus WriteEntry(IniFile& ini, const KelString& section, const char* key, const KelString& value) {
    KelString known;
    if (value.empty() && !ini.GetEntryValue(section, key, known, {})) return {};
    return ini.WriteEntryValue(section, key, value);
}

KelStatus WriteEntries(IniFile& ini, const KelString& section, const std::optional<WeeklyWindow>& window) {
    const bool isWeek = window && window->isWeek;
    const KelString slots = window && !isWeek ? window->slots : KelString();
    if (KelStatus done = WriteEntry(ini, section, "Week", isWeek ? WeekText(*window) : KelString()); !done)
        return done;
    if (KelStatus done = WriteEntry(ini, section, "Slots", slots); !done || !window) return done;
    if (KelStatus done = WriteEntry(ini, section, "UseUTCTime", window->useUtcTime ? "true" : "false");
        !done || isWeek)
        return done;
    return WriteEntry(ini, section, "SlotType", KelFormat("%d", window->slotType));
}

}  // namespace

const char* WindowSection(TransferDirection direction) {
    switch (direction) {
        case TransferDirection::Up:
            return "Up";
        case TransferDirection::Down:
            return "Down";
        case TransferDirection::Multicast:
            break;
    }
    return "Multicast";
}

std::span<const IniSetting> WindowIniSettings() {
    static const KelVector<IniSetting> settings = [] {
        KelVector<IniSetting> all;
        for (const TransferDirection direction :
             {TransferDirection::Up, TransferDirection::Down, TransferDirection::Multicast}) {
            const WindowEntries entries(direction);
            all.insert(all.end(), {entries.week, entries.slots, entries.slotType, entries.useUtcTime});
        }
        return all;
    }();
    return settings;
}

KelResult<std::optional<WeeklyWindow>> ReadWindow(const IniFile& ini, TransferDirection direction) {
    const WindowEntries entries(direction);
    const KelString week = ReadIniText(ini, entries.week);
    const KelString slots = ReadIniText(ini, entries.slots);
    if (week.empty() && slots.empty()) return std::optional<WeeklyWindow>();
    const auto window =
        MakeWindow(week, slots, static_cast<std::int32_t>(ReadIniNumber(ini, entries.slotType)),
                   ReadIniFlag(ini, entries.useUtcTime));
    if (!window)
        return KelError{kKelErrorBadInput, KelFormat("section %s is no window: %S", WindowSection(direction),
                                                     window.Error().message)};
    return std::optional<WeeklyWindow>(*window);
}

KelStatus WriteWindow(const KelString& path, TransferDirection direction,
                      const std::optional<WeeklyWindow>& window) {
    // The entries are written one by one, so they go to a copy, which then replaces the file.
    const KelString copy = path + ".new";
    const bool copied = FileExists(path) ? FileCopy(path, copy, false) : FileDelete(copy);
    if (!copied)
        return KelError{kKelErrorBadInput, KelFormat("%S cannot be written; check disk and rights", copy)};
    IniFile ini;
    if (!ini.Open(copy))
        return KelError{kKelErrorBadInput, KelFormat("%S cannot be read or is malformed", path)};
    KelStatus written = WriteEntries(ini, WindowSection(direction), window);
    ini.Close();
    if (written && !FileRename(copy, path)) {
        written = KelError{kKelErrorBadInput, KelFormat("%S cannot be renamed to %S", copy, path)};
    }
    if (!written) FileDelete(copy);
    return written;
}
