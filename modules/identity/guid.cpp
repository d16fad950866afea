#include "modules/identity/guid.h"

#include "kel/file.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::size_t kSchemeDigits = 4;
constexpr std::uint64_t kMaxFileBytes = 128;

KelResult<KelString> MakeAndKeep(const KelString& path) {
    const KelString guid = MakeGuid();
    if (const KelStatus kept = KeepGuid(path, guid); !kept) return kept.Error();
    return guid;
}

}  // namespace

KelString WithSchemeOf(const KelString& guid, const KelString& model) {
    return model.substr(0, kSchemeDigits) + guid.substr(kSchemeDigits);
}

KelStatus KeepGuid(const KelString& path, const KelString& guid) {
    return FileWriteText(path, guid + "\n");
}

KelResult<KelString> LoadOrMakeGuid(const KelString& path, const KelDebug& log) {
    if (!FileExists(path)) {
        auto made = MakeAndKeep(path);
        if (made) log.Print("This device has the new GUID %S\n", *made);
        return made;
    }
    const std::int64_t size = FileGetSize64(path);
    if (size >= 0 && static_cast<std::uint64_t>(size) <= kMaxFileBytes) {
        const auto text = FileReadText(path, kMaxFileBytes);
        if (!text) return text.Error();
        const KelString guid = Trim(*text);
        if (IsGuid(guid)) return guid;
    }
    // Kept aside rather than overwritten, so that the old GUID can be restored by hand.
    const KelString aside = path + ".damaged";
    if (!FileRename(path, aside)) {
        return KelError{kKelErrorBadInput,
                        KelFormat("The damaged file %S cannot be renamed; remove it", path)};
    }
    auto made = MakeAndKeep(path);
    if (made) {
        log.Error("%S held no GUID and was renamed to %S; this device now has the new GUID %S\n", path, aside,
                  *made);
    }
    return made;
}
