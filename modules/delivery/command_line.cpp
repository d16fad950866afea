#include "modules/delivery/command_line.h"

#include "kel/format.h"

KelResult<KelVector<KelString>> SplitCommandLine(const KelString& text) {
    KelVector<KelString> words;
    KelString word;
    bool isQuoted = false;
    bool isInWord = false;
    for (const char c : text) {
        if (c == '"') {
            isQuoted = !isQuoted;
            isInWord = true;
        } else if (!isQuoted && (c == ' ' || c == '\t')) {
            if (isInWord) words.push_back(std::move(word));
            word.clear();
            isInWord = false;
        } else {
            word += c;
            isInWord = true;
        }
    }
    if (isQuoted) return KelError{1, KelFormat("The command %S lacks a closing quote", text)};
    if (isInWord) words.push_back(std::move(word));
    if (words.empty() || words.front().empty() || words.front().front() != '/') {
        return KelError{
            1, KelFormat("The command \"%S\" does not begin with the absolute path of a program", text)};
    }
    return words;
}
