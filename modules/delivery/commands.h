#pragma once

#include <functional>

#include "kel/debug.h"
#include "kel/ini_file.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/ini_settings.h"
#include "modules/delivery/received_file.h"

/// Splits a configured command into the program's absolute path and its arguments: at blanks and tabs, but
/// not inside double quotes. There is no shell: no other character has a meaning.
KelResult<KelVector<KelString>> SplitCommandLine(const KelString& text);

/// How a command ended. Cancelled: it was stopped and is to run again. Failed: `message` says why.
struct CommandResult {
    enum class End : unsigned char { Done, Failed, Cancelled };
    End end = End::Done;
    KelString message;
};

/// The commands that are run for received files, by file type. Configured once; then from any thread.
class Commands {
  public:
    explicit Commands(const KelDebug& log) : log_(log) {}

    /// Reads the section Commands of `ini`. An unusable command is left out.
    void Configure(const IniFile& ini);

    /// Appends the commands that cannot be run.
    static void CheckIni(const IniFile& ini, KelVector<IniFault>& faults);

    bool Has(const KelString& type) const { return commands_.contains(type); }

    /// The program of the command for `type`, which must exist.
    const KelString& ProgramOf(const KelString& type) const { return commands_.at(type).front(); }

    /// Runs the command for the type of `file`, which lies at `path`, and waits for it; its output and how it
    /// ended are logged. `cancelled` is called several times a second; true ends the command.
    CommandResult Run(const FileKey& file, const KelString& path, std::function<bool()> cancelled) const;

  private:
    const KelDebug& log_;
    KelHash<KelString, KelVector<KelString>> commands_;  ///< by type: the program and its arguments
};
