#pragma once

#include "kel/types.h"

namespace CLI {
class App;
}

// The commands and options of the program as a table: what the parser knows, of which the help is made, too.
// The manual page and the completion come from it.

struct OptionEntry {
    KelString name;                ///< "--type"; of an argument the same as `value`
    KelString letter;              ///< "-n"; empty: none
    KelString value;               ///< "FILE", what it takes; empty: nothing
    KelVector<KelString> choices;  ///< the only values; empty: any
    KelString purpose;
    KelString fallback;  ///< the default that the help shows; empty: none
    bool isRequired = false;
    bool isSeveral = false;  ///< takes several values
};

struct CommandEntry {
    KelString name;  ///< "publish", "windows set"; empty: the program
    KelString purpose;
    KelString details;  ///< what the purpose is too short for; may be empty
    KelVector<OptionEntry> arguments;
    KelVector<OptionEntry> options;  ///< those of the program count for every command
    KelVector<KelString> verbs;      ///< the commands below this one, as "set"
};

/// The program first, each command before those below it.
KelVector<CommandEntry> CommandTable();

/// The same of a parser.
KelVector<CommandEntry> TableOf(const CLI::App& app);

/// "publish FILE... --type TYPE [--wake]".
KelString SynopsisOf(const CommandEntry& command);

/// The longer text of a command; empty when its purpose says everything.
const char* DetailsOf(const KelString& command);
