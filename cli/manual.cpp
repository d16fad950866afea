#include "cli/manual.h"

#include "cli/options.h"
#include "kel/format.h"
#include "kelcore/version.h"

namespace {

/// A text as roff prints it unchanged: a "-" that can be copied, and no command at the beginning of a line.
KelString Roff(const KelString& text) {
    KelString result;
    for (const char c : text) {
        if (c == '\\')
            result += "\\e";
        else if (c == '-')
            result += "\\-";
        else if (c == '\'')
            result += "\\(aq";
        else if (c == '"')
            result += "\\(dq";
        else if (c == '\n')
            result += ' ';
        else
            result += c;
    }
    return result.starts_with('.') ? "\\&" + result : result;
}

KelString Sentence(const KelString& text) {
    return text.empty() || text.ends_with('.') ? text : text + ".";
}

KelString OptionText(const OptionEntry& option) {
    KelString head = "\\fB" + Roff(option.name) + "\\fR";
    if (!option.letter.empty()) head = "\\fB" + Roff(option.letter) + "\\fR, " + head;
    if (option.name == option.value)
        head = "\\fI" + Roff(option.value) + "\\fR";
    else if (!option.value.empty())
        head += " \\fI" + Roff(option.value) + "\\fR";
    KelString text = option.purpose;
    KelString choices;
    for (const KelString& choice : option.choices)
        choices += (choices.empty() ? "" : ", ") + choice;
    if (!choices.empty()) text += "; one of " + choices;
    if (!option.fallback.empty()) text += "; the default is " + option.fallback;
    return ".TP\n" + head + "\n" + Roff(Sentence(text)) + "\n";
}

KelString CommandText(const CommandEntry& command) {
    KelString text = ".SS " + Roff(command.name) + "\n\\fBkel\\fR " + Roff(SynopsisOf(command)) + "\n.PP\n" +
                     Roff(Sentence(command.purpose)) + "\n";
    if (!command.details.empty()) text += ".PP\n" + Roff(command.details) + "\n";
    for (const auto* list : {&command.arguments, &command.options})
        for (const OptionEntry& option : *list)
            if (option.name != "--help") text += OptionText(option);
    return text;
}

constexpr const char* kFiles = R"(.SH FILES
.TP
/var/lib/kel
The root folder of the agent of this device, unless \fB\-\-root\fR or KEL_ROOT names another one.
.TP
\fIDIR\fR/run/agent.sock
The socket on which the agent is called.
.SH SEE ALSO
\fBkelagent\fR(8); /usr/share/doc/kel\-doc/operators_guide.md explains what the commands do and names the JSON output.
)";

}  // namespace

KelString ManualPage(const KelVector<CommandEntry>& table) {
    KelString page = KelString(".TH KEL 1 \"\" \"kel ") + KelVersion() +
                     "\" \"User Commands\"\n"
                     ".SH NAME\nkel \\- operates agents of a device tree\n"
                     ".SH SYNOPSIS\n\\fBkel\\fR \\fB\\-\\-root\\fR \\fIDIR\\fR [\\fIoptions\\fR] "
                     "\\fIcommand\\fR ...\n.br\n"
                     "\\fBkel\\fR \\fB\\-\\-url\\fR \\fIURL\\fR \\fB\\-\\-user\\fR \\fINAME\\fR "
                     "\\fB\\-\\-password\\-file\\fR "
                     "\\fIFILE\\fR [\\fIoptions\\fR] \\fIcommand\\fR ...\n.br\n"
                     "\\fBkel\\fR \\fB\\-\\-root\\fR \\fIDIR\\fR \\fB\\-\\-url\\fR \\fIURL\\fR "
                     "[\\fIoptions\\fR] \\fIcommand\\fR ...\n"
                     ".SH DESCRIPTION\n"
                     "kel asks an agent and prints tables, or JSON for scripts. The options of all commands "
                     "may stand before "
                     "or behind the command.\n.SH OPTIONS\n";
    for (const OptionEntry& option : table.front().options)
        page += OptionText(option);
    page += ".SH COMMANDS\n";
    for (std::size_t i = 1; i < table.size(); ++i)
        page += CommandText(table[i]);
    page += KelFormat(
        ".SH EXIT STATUS\n.TP\n%d\nDone.\n.TP\n%d\nRefused or failed.\n.TP\n%d\nUnusable "
        "arguments.\n.TP\n%d\nThe "
        "agent, or the device asked through it, does not answer.\n",
        kExitDone, kExitFailed, kExitUsage, kExitUnreachable);
    return page + kFiles;
}
