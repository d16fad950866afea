#include "filestore/exchange/input_checks.h"

#include <algorithm>

#include "filestore/state/file_store.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/call_origin.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

bool Refuse(const char* name, const KelString& value) {
    FileStore::debugFileStore.Warning("Refusing an offer whose %s is unusable: '%S'\n", name, value);
    return false;
}

bool IsFitForSql(const KelString& text) {
    return text.find('\'') == KelString::npos && !HasControlCharacter(text);
}

}  // namespace

bool CheckKeyPart(const char* name, const KelString& part, bool inSql) {
    if (!IsSafePathElement(part)) return Refuse(name, part);
    return !inSql || IsFitForSql(part) || Refuse(name, part);
}

bool CheckFileKey(const FileKey& key, bool mayLackChecksum) {
    if (!CheckKeyPart(kValueFileType, key.type, true) || !CheckKeyPart(kValueFileLabel, key.label, false) ||
        !CheckKeyPart(kValueFileName, key.name, false))
        return false;
    return (mayLackChecksum && key.checksum.empty()) || CheckKeyPart(kValueFileChecksum, key.checksum, true);
}

bool CheckDeviceText(const char* name, const KelString& text) {
    return IsFitForSql(text) || Refuse(name, text);
}

bool IsUrlPath(const KelString& text) {
    return text.starts_with('/') && !HasControlCharacter(text);
}

bool CheckLocalPaths(const KelContainer& arguments) {
    const auto names = {kValueMovePath, kValueCopyPath, kValueFilePath};
    const bool namesPath = std::any_of(names.begin(), names.end(),
                                       [&arguments](const char* name) { return arguments.Has(name); });
    if (!namesPath || ActionIsFromThisDevice(arguments)) return true;
    FileStore::debugFileStore.Warning("Refusing an offer from '%S' that names a path of this device\n",
                                      ActionRequestAddress(arguments));
    return false;
}

}  // namespace filestore
