#include "kel/path.h"

#include <unistd.h>
#include <climits>

#include "kel/directory.h"
#include "kel/text.h"

void SplitPath(const KelString& path, KelString& folder, KelString& name) {
    const std::size_t last = path.find_last_of("/\\");
    const std::size_t split = last == KelString::npos ? 0 : last + 1;
    KelString behind = path.substr(split);  // first: `folder` or `name` may be `path` itself
    folder = path.substr(0, split);
    name = std::move(behind);
}

KelString CompletePath(const KelString& path) {
    KelString whole = path;
    if (!path.starts_with('/')) {
        char folder[PATH_MAX];
        if (::getcwd(folder, sizeof folder) == nullptr) return path;
        whole = KelString(folder) + "/" + path;
    }
    KelVector<KelString> kept;
    for (KelString& element : SplitText(whole, '/')) {
        if (element == "..") {
            if (!kept.empty()) kept.pop_back();
        } else if (!element.empty() && element != ".") {
            kept.push_back(std::move(element));
        }
    }
    KelString complete;
    for (const KelString& element : kept)
        complete += "/" + element;
    if (complete.empty() || path.ends_with('/')) complete += '/';
    return complete;
}

bool PathCreate(const KelString& path) {
    if (DirExists(path)) return true;
    const std::size_t end = path.find_last_of('/');
    const bool hasParent = end != KelString::npos && end != 0;
    return (!hasParent || PathCreate(path.substr(0, end))) && DirCreate(path);
}

bool IsSafePathElement(std::string_view element) {
    return !element.empty() && element.size() <= NAME_MAX && element != "." && element != ".." &&
           element.find_first_of("/\\") == std::string_view::npos && !HasControlCharacter(element);
}
