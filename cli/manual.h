#pragma once

#include "cli/command_table.h"
#include "kel/types.h"

/// The manual page kel(1), for man, made from the table of commands.
KelString ManualPage(const KelVector<CommandEntry>& table);
