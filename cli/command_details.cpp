#include <array>
#include <utility>

#include "cli/command_table.h"

namespace {

constexpr auto kDetails = std::to_array<std::pair<const char*, const char*>>({
    {"init",
     "DIR receives config/ with one commented ini file for each module, and data/ and log/ when the agent "
     "runs. A tree has keys and certificates: the master makes them, and the other devices join with an "
     "invitation (see kel invite). The password of a plain tree has at least 12 characters."},
    {"devices",
     "Each device is shown below its parent, with the time of its last report; one that has sent "
     "nothing for 26 hours is silent."},
    {"devices remove",
     "A device that is gone holds up publications; removing it ends them for it. A relay can "
     "be removed when no device is known below it. In a tree with keys, its certificate is revoked."},
    {"publish",
     "Every target confirms what it has received. --watch exits with 0 when all targets have the files "
     "and with 1 when one failed. A file that was published before is delivered again, and only "
     "transferred to devices that do not have it."},
    {"publications",
     "Without an ID the latest is shown first; with one, each device with what it waits for."},
    {"withdraw",
     "What was delivered stays delivered. The stores of all devices forget the file, also those that "
     "cannot be reached now, when they answer again."},
    {"why",
     "A file is named by its publication or its name on the master, or by its number in the store of the "
     "device. Silent devices take up to 20 seconds."},
    {"request",
     "The file is delivered to the inbox when a device above has it; the request stays open otherwise."},
    {"settings set",
     "The settings take effect at once and are kept in the ini file. When one is unusable, none "
     "is changed."},
    {"windows set",
     "up is the link to the parent, with what is downloaded from it. Example: kel --root DIR windows "
     "set up \"mon-fri 8-18 4M; sat,sun closed; else 20M\""},
    {"parent", "The new parent is used whether it answers or not; what was on its way comes through it."},
    {"call",
     "With --list and the name of an action its inputs, outputs and results are shown. Example: kel --root "
     "DIR call FileStoreListFiles Limit:=10"},
    {"invite",
     "The token alone goes to the standard output. Whoever has it can join the tree as a client, or with "
     "--role relay as a relay, so it is as secret as a password."},
    {"keys revoke",
     "The device is refused at once by the master, and by the relays within a minute for each level. It "
     "comes back with another invitation."},
    {"keys join",
     "For a device whose invitation has ended before it was used, or whose certificate has ended. It keeps "
     "its GUID and its key. A device of a plain tree gets keys and keeps its GUID; its agent has to be "
     "started "
     "again."},
    {"keys begin",
     "The agent has to be started again after it. Members without keys are accepted until 'kel keys "
     "end-password'."},
    {"keys end-password",
     "For the master and the relays of a tree that was plain. It is refused while devices come with the "
     "password."},
    {"keys renew",
     "For a key that somebody may have read, or a rule of the site; certificates renew themselves in any "
     "case. "
     "'kel keys' shows the new key a few seconds later; devices below trust it within a minute."},
    {"keys forget-parent",
     "A device remembers the key of its parent, so that no other one can take that place."},
    {"password",
     "Devices are given the new password in any order, without a restart: each accepts both until the former "
     "one is ended there."},
    {"password rotate",
     "The password is read from a file or the standard input, so that no other user sees it. Example: ssh "
     "DEVICE kel password rotate --password-file - < FILE"},
    {"password end", "It is refused while devices come with the former password, or have last come with it."},
    {"audit",
     "A change through the master is shown on the master with the device, and on the device with the "
     "master. One without a result is running, or the agent ended in the middle of it."},
    {"metrics",
     "For the textfile collector of node_exporter, --output writes FILE in its folder at once, so that a "
     "half "
     "of it is never read; all users may read it. Names of files and devices are not among the metrics."},
    {"completion",
     "For bash: kel completion bash > ~/.local/share/bash-completion/completions/kel. For zsh: put "
     "eval \"$(kel completion zsh)\" behind compinit in ~/.zshrc. The scripts ask the agent that the command "
     "line names for the names of its devices, groups, publications, settings and actions."},
    {"manual", "Example: kel manual | man -l -"},
});

}  // namespace

const char* DetailsOf(const KelString& command) {
    for (const auto& [name, text] : kDetails)
        if (command == name) return text;
    return "";
}
