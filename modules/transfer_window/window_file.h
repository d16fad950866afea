#pragma once

#include <optional>
#include <span>

#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/ini_settings.h"
#include "modules/transfer_window/weekly_window.h"

/// The ini section of a direction: "Up", "Down" or "Multicast".
const char* WindowSection(TransferDirection direction);

/// The entries of the ini file.
std::span<const IniSetting> WindowIniSettings();

/// The window of `direction` in `ini`; none when its section holds neither Week nor Slots. An unusable window
/// is an error that names section and value.
KelResult<std::optional<WeeklyWindow>> ReadWindow(const IniFile& ini, TransferDirection direction);

/// Replaces (or with an empty `window` removes) the window of `direction` in the ini file `path`: readers see
/// the old or the new window and a crash leaves one of them, never a mixture. One caller at a time per file.
KelStatus WriteWindow(const KelString& path, TransferDirection direction,
                      const std::optional<WeeklyWindow>& window);
