#pragma once

#include "cli/command_table.h"
#include "kel/types.h"

/// The kind of names of which an option or argument takes one, as `kel completion KIND` prints them: devices,
/// groups, publications, settings or actions; files or folders; empty: any text.
KelString KindOfValue(const CommandEntry& command, const OptionEntry& option);

/// The completion of a shell, bash or zsh, made from the table of commands.
KelString CompletionScript(const KelVector<CommandEntry>& table, const KelString& shell);
