#include "modules/delivery/received_file.h"

#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"

namespace {

KelStatus CheckElement(const char* valueName, const KelString& value) {
    if (IsSafePathElement(value)) return {};
    return KelError{1, KelFormat("%s \"%S\" cannot be part of a path", valueName, value)};
}

}  // namespace

KelContainer ReceivedFile::ToContainer() const {
    KelContainer container;
    container.SetString("FileType", type);
    container.SetString("FileLabel", label);
    container.SetString("FileName", name);
    container.SetString("FileChecksum", checksum);
    container.SetString("FilePath", sourcePath);
    return container;
}

KelResult<ReceivedFile> ReadReceivedFile(const KelContainer& arguments) {
    ReceivedFile file;
    file.type = arguments.GetString("FileType");
    file.label = arguments.GetString("FileLabel");
    file.name = arguments.GetString("FileName");
    file.checksum = arguments.GetString("FileChecksum");
    file.sourcePath = arguments.GetString("FilePath");
    if (KelStatus checked = CheckElement("FileType", file.type); !checked) return checked.Error();
    if (KelStatus checked = CheckElement("FileLabel", file.label); !checked) return checked.Error();
    if (KelStatus checked = CheckElement("FileName", file.name); !checked) return checked.Error();
    if (KelStatus checked = CheckElement("FileChecksum", file.checksum); !checked) return checked.Error();
    if (file.name.starts_with(kTempFilePrefix)) {
        return KelError{1, KelFormat("FileName \"%S\" is kept for files that are not finished", file.name)};
    }
    if (file.sourcePath.empty() || file.sourcePath.front() != '/') {
        return KelError{1, KelFormat("FilePath \"%S\" is no absolute path", file.sourcePath)};
    }
    return file;
}
