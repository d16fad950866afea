#include "kelcore/relative_name.h"

#include <algorithm>

#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"

namespace {

constexpr std::string_view kSeparator = "%2F";

}  // namespace

KelString NameForPath(const KelString& path) {
    return ReplaceAll(path, "/", kSeparator);
}

KelString PathInName(const KelString& name) {
    KelString path = ReplaceAll(name, kSeparator, "/");
    const bool isUsable =
        path == name || std::ranges::all_of(SplitText(path, '/'), [](const KelString& element) {
            return IsSafePathElement(element) && !element.starts_with(kTempFilePrefix);
        });
    return isUsable ? path : name;
}
