#include "modules/delivery/received_file.h"

#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"

namespace {

KelStatus CheckElement(const char* valueName, const KelString& value) {
    if (IsSafePathElement(value)) return {};
    return KelError{kKelErrorBadInput, KelFormat("%s \"%S\" cannot be part of a path", valueName, value)};
}

}  // namespace

KelStatus CheckFileKey(const FileKey& key) {
    if (KelStatus checked = CheckElement(kValueFileType, key.type); !checked) return checked;
    if (KelStatus checked = CheckElement(kValueFileLabel, key.label); !checked) return checked;
    if (KelStatus checked = CheckElement(kValueFileName, key.name); !checked) return checked;
    if (KelStatus checked = CheckElement(kValueFileChecksum, key.checksum); !checked) return checked;
    // A copy under such a name would be removed as one that was left unfinished.
    if (key.name.starts_with(kTempFilePrefix)) {
        return KelError{kKelErrorBadInput,
                        KelFormat("FileName \"%S\" is reserved for unfinished files", key.name)};
    }
    return {};
}
KelContainer ReceivedFile::ToContainer() const {
    FileOffer offer;
    offer.key = key;
    offer.filePath = sourcePath;
    KelContainer& info = offer.info.emplace();
    for (std::uint32_t i = 0; i < publications.size(); ++i)
        info.SetString(kValuePublicationId, publications[i], i);
    info.SetInt64(kValuePublicationTime, publicationTime);
    return offer.ToContainer();
}

KelResult<ReceivedFile> ReadReceivedFile(const KelContainer& arguments) {
    ReceivedFile file{FileKey::Read(arguments), arguments.GetString(kValueFilePath)};
    if (const KelStatus checked = CheckFileKey(file.key); !checked) return checked.Error();
    if (file.sourcePath.empty() || file.sourcePath.front() != '/') {
        return KelError{kKelErrorBadInput,
                        KelFormat("FilePath \"%S\" is not an absolute path", file.sourcePath)};
    }
    const KelContainer info = arguments.GetContainer(kValueFileInfo);
    const std::uint32_t count = info.Has(kValuePublicationId) ? info.Count(kValuePublicationId) : 0;
    for (std::uint32_t i = 0; i < count; ++i)
        file.publications.push_back(info.GetString(kValuePublicationId, {}, i));
    file.publicationTime = info.GetInt64(kValuePublicationTime);
    return file;
}
