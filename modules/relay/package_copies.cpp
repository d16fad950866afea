#include "modules/relay/package_copies.h"

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_key.h"
#include "kelcore/file_values.h"

namespace {

KelStatus CheckElement(const char* valueName, const KelString& value) {
    if (IsSafePathElement(value)) return {};
    return KelError{kKelErrorBadInput, KelFormat("%s \"%S\" cannot be part of a path", valueName, value)};
}

}  // namespace

void PackageCopies::SetFolders(const KelString& root, const KelString& workFolder) {
    root_ = root;
    workFolder_ = workFolder;
    DirDeleteTempFiles(workFolder);
}

KelResult<KelString> PackageCopies::Keep(const KelContainer& arguments) const {
    const FileKey key = FileKey::Read(arguments);
    const KelString source = arguments.GetString(kValueFilePath);
    if (const KelStatus checked = CheckElement(kValueFileLabel, key.label); !checked) return checked.Error();
    if (const KelStatus checked = CheckElement(kValueFileName, key.name); !checked) return checked.Error();
    if (source.empty() || source.front() != '/' || source.find('\0') != KelString::npos) {
        return KelError{kKelErrorBadInput, KelFormat("FilePath \"%S\" is not an absolute path", source)};
    }
    if (!FileExists(source)) {
        return KelError{kKelErrorMissingContent, KelFormat("The file %S does not exist", source)};
    }
    // Not by checksum: a relay offers its network only the latest package of a name.
    const KelString folder = root_ + "/" + key.label;
    KelString path = folder + "/" + key.name;
    if (!PathCreate(folder) || !PathCreate(workFolder_) || !FileCopy(source, path, false, workFolder_)) {
        return KelError{kKelErrorInternal,
                        KelFormat("%S cannot be copied to %S; check free space and rights", source, path)};
    }
    return path;
}

KelStatus PackageCopies::Clear(const KelContainer& arguments) const {
    const KelString label = arguments.GetString(kValueFileLabel);
    const KelString name = arguments.GetString(kValueFileName);
    if (KelStatus checked = CheckElement(kValueFileLabel, label); !checked) return checked;
    const KelString folder = root_ + "/" + label;
    if (!name.empty()) {
        if (KelStatus checked = CheckElement(kValueFileName, name); !checked) return checked;
        const KelString path = folder + "/" + name;
        if (FileExists(path) && !FileDelete(path))
            return KelError{kKelErrorInternal,
                            KelFormat("The package %S cannot be removed; check its rights", path)};
        DirDelete(folder, false);  // stays while it has other packages
        return {};
    }
    if (!DirExists(folder) || DirDelete(folder, true)) return {};
    return KelError{kKelErrorInternal,
                    KelFormat("The folder %S cannot be removed; check its rights", folder)};
}
