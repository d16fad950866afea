#include "cli/completion.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>

namespace {

struct Kind {
    std::string_view command;  ///< empty: any
    std::string_view value;
    std::string_view kind;
};

/// The first that fits counts.
constexpr auto kKinds = std::to_array<Kind>({
    {"why", "FILE", "publications"},
    {"", "FILE", "files"},
    {"", "DIR", "folders"},
    {"", "DEVICE", "devices"},
    {"", "DEVICE,...", "devices"},
    {"", "GROUP", "groups"},
    {"", "PUBLICATION", "publications"},
    {"", "SETTING", "settings"},
    {"", "SETTING=VALUE", "settings"},
    {"", "ACTION", "actions"},
});

constexpr std::string_view kBegin = R"(# Completion of kel; made by kel completion.
_kel() {
    local IFS=$'\n' word=${COMP_WORDS[COMP_CWORD]} command= agent=() kind= words= i
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
)";

constexpr std::string_view kAfterOptions = R"(                case ${COMP_WORDS[i]} in
                    --root | --url | --user | --password-file)
                        agent+=("${COMP_WORDS[i]}" "${COMP_WORDS[i + 1]/#\~/$HOME}") ;;
                esac
                i=$((i + 1)) ;;
            -*) ;;
            *)
                case "$command ${COMP_WORDS[i]}" in
)";

constexpr std::string_view kAfterCommands =
    R"(                        command="${command:+$command }${COMP_WORDS[i]}" ;;
                esac ;;
        esac
    done
    case "$command ${COMP_WORDS[COMP_CWORD - 1]}" in
)";

constexpr std::string_view kAfterValues = R"(        *)
            case $command in
)";

constexpr std::string_view kEnd = R"(            esac
            # The options stand last; they are offered to a word that begins like one.
            [[ $word == -* ]] && kind= || words=${words%%$'\n'--*} ;;
    esac
    case $kind in
        files) COMPREPLY=($(compgen -f -- "$word")) ;;
        folders) COMPREPLY=($(compgen -d -- "$word")) ;;
        ?*) words+=$'\n'$("${COMP_WORDS[0]}" "${agent[@]}" --timeout 5 completion "$kind" 2>/dev/null) ;;
    esac
    case $kind in
        files | folders) type compopt >/dev/null 2>&1 && compopt -o filenames ;;
        *)
            local begin=
            [[ $word == *,* ]] && begin=${word%,*},
            COMPREPLY=($(compgen -P "$begin" -W "$words" -- "${word##*,}")) ;;
    esac
    if [[ $kind == settings && $command == 'settings set' ]]; then
        COMPREPLY=("${COMPREPLY[@]/%/=}")
        type compopt >/dev/null 2>&1 && compopt -o nospace
    fi
}
complete -F _kel kel
)";

/// What the shell assigns: the names to complete with, and what kind of names the agent or the folder gives.
KelString Assignments(const KelVector<KelString>& words, const KelString& kind) {
    KelString text;
    for (const KelString& word : words)
        text += "\\n" + word;
    return "words=$'" + text + "' kind=" + kind + " ;;\n";
}

bool TakesValue(const OptionEntry& option) {
    return !option.value.empty();
}

KelString OptionPattern(const KelVector<CommandEntry>& table) {
    std::set<KelString> names;
    for (const CommandEntry& command : table)
        for (const OptionEntry& option : command.options)
            if (TakesValue(option)) {
                names.insert(option.name);
                if (!option.letter.empty()) names.insert(option.letter);
            }
    KelString pattern;
    for (const KelString& name : names)
        pattern += (pattern.empty() ? "            " : " | ") + name;
    return pattern + ")\n";
}

KelString CommandPattern(const KelVector<CommandEntry>& table) {
    KelString pattern;
    for (const CommandEntry& command : table) {
        if (command.name.empty()) continue;
        // The commands of the program have nothing before the blank.
        const bool isVerb = command.name.find(' ') != KelString::npos;
        pattern += (pattern.empty() ? "                    " : " | ") + KelString("\"") +
                   (isVerb ? "" : " ") + command.name + "\"";
    }
    return pattern + ")\n";
}

KelString OptionValues(const KelVector<CommandEntry>& table) {
    KelString cases;
    for (const CommandEntry& command : table)
        for (const OptionEntry& option : command.options)
            if (TakesValue(option))
                cases +=
                    "        " +
                    (command.name.empty() ? "*\" " + option.name : "\"" + command.name + " " + option.name) +
                    "\") " + Assignments(option.choices, KindOfValue(command, option));
    return cases;
}

/// What stands behind a command: those below it, the values of its last argument, and the options, last.
KelString Continuations(const KelVector<CommandEntry>& table) {
    KelString cases;
    for (const CommandEntry& command : table) {
        KelVector<KelString> words = command.verbs;
        KelString kind;
        for (const OptionEntry& argument : command.arguments) {
            words.insert(words.end(), argument.choices.begin(), argument.choices.end());
            if (KelString found = KindOfValue(command, argument); !found.empty()) kind = std::move(found);
        }
        for (const CommandEntry* of : {&command, &table.front()})
            for (const OptionEntry& option : of->options)
                if (std::ranges::find(words, option.name) == words.end()) words.push_back(option.name);
        cases += "                '" + command.name + "') " + Assignments(words, kind);
    }
    return cases;
}

}  // namespace

KelString KindOfValue(const CommandEntry& command, const OptionEntry& option) {
    for (const Kind& kind : kKinds)
        if (option.value == kind.value && (kind.command.empty() || command.name == kind.command))
            return KelString(kind.kind);
    return {};
}

KelString CompletionScript(const KelVector<CommandEntry>& table, const KelString& shell) {
    KelString script = shell == "zsh" ? "autoload -U +X bashcompinit && bashcompinit\n" : "";
    script += KelString(kBegin) + OptionPattern(table) + KelString(kAfterOptions) + CommandPattern(table) +
              KelString(kAfterCommands) + OptionValues(table) + KelString(kAfterValues) +
              Continuations(table) + KelString(kEnd);
    return script;
}
