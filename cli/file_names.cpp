#include "cli/file_names.h"

#include <set>

#include "kel/path.h"

KelString FileNameOf(const KelString& file) {
    KelString folder, name;
    SplitPath(CompletePath(file), folder, name);
    return name;
}

KelStatus CheckDifferentNames(const KelVector<KelString>& files) {
    std::set<KelString> names;
    for (const KelString& file : files) {
        const KelString name = FileNameOf(file);
        if (!names.insert(name).second)
            return KelError{1, "two of the files are named '" + name + "'; nothing was sent"};
    }
    return {};
}
