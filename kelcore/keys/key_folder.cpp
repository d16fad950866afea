#include "kelcore/keys/key_folder.h"

#include <cstdio>

#include "kel/container.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/device_name.h"

namespace {

constexpr const char* kKey = "key.pem";
constexpr const char* kNextKey = "next_key.pem";
constexpr const char* kDevice = "device.xml";
constexpr const char* kCertificate = "certificate.pem";
constexpr const char* kAuthority = "authority.pem";
constexpr const char* kRevoked = "revoked.pem";
constexpr const char* kGroupKey = "group_key";
constexpr const char* kParent = "parent.xml";
constexpr const char* kJoin = "join.xml";
constexpr std::uint64_t kMaxGroupKeyBytes = 256;

KelResult<KelDeviceIdentity> LoadDevice(const KelString& path) {
    KelContainer values;
    if (const KelStatus loaded = values.LoadFromFile(path); !loaded) return loaded.Error();
    const auto role = ParseDeviceRole(values.GetString("Role"));
    KelDeviceIdentity device{values.GetString("GUID"), role.value_or(KelDeviceRole::Client)};
    if (!role || !IsGuid(device.guid))
        return KelError{kKelFailure,
                        KelFormat("%S names no GUID or no role; restore it from a backup", path)};
    return device;
}

/// A file that names no parent is as good as none: the parent is found again.
KelParentPin LoadParent(const KelString& path) {
    KelContainer values;
    if (!FileExists(path) || !values.LoadFromFile(path)) return {};
    KelParentPin parent{
        {}, values.GetString("GUID"), values.GetString("Fingerprint"), values.GetString("Serial")};
    for (std::uint32_t i = 0; values.Has("Place") && i < values.Count("Place"); ++i)
        parent.places.push_back(values.GetString("Place", {}, i));
    return parent;
}

KelStatus SavePem(const KelString& path, const KelCertificate& certificate) {
    const auto pem = certificate.ToPem();
    if (!pem) return pem.Error();
    return FileWriteText(path, *pem);
}

}  // namespace

KelStatus KelKeyFolder::Create(const KelDeviceIdentity& device) const {
    if (FileExists(File(kKey))) return KelError{kKelFailure, File(kKey) + " already exists"};
    if (!PathCreate(path_)) return KelError{kKelFailure, path_ + ": cannot be created"};
    auto key = KelKeyPair::Make();
    if (!key) return key.Error();
    KelContainer values;
    values.SetString("GUID", device.guid);
    values.SetString("Role", KelDeviceRoleName(device.role));
    if (KelStatus saved = values.SaveToFile(File(kDevice)); !saved) return saved;
    return key->Save(File(kKey));
}

KelResult<KelKeyRing::Parts> KelKeyFolder::LoadParts() const {
    auto key = KelKeyPair::Load(File(kKey));
    if (!key) return key.Error();
    auto device = LoadDevice(File(kDevice));
    if (!device) return device.Error();
    KelKeyRing::Parts parts{std::move(*key), std::move(*device), {}, {}, {}, {}, LoadParent(File(kParent))};
    if (!FileExists(File(kCertificate))) return parts;
    auto certificate = KelCertificate::Load(File(kCertificate));
    if (!certificate) return certificate.Error();
    auto authority = KelCertificate::Load(File(kAuthority));
    if (!authority) return authority.Error();
    const auto groupKey = FileReadText(File(kGroupKey), kMaxGroupKeyBytes);
    if (!groupKey) return groupKey.Error();
    parts.groupKey = Trim(*groupKey);
    if (FileExists(File(kRevoked))) {
        const auto pem = FileReadText(File(kRevoked), KelRevocationList::kMaxPemBytes);
        if (!pem) return pem.Error();
        auto revoked = KelRevocationList::FromPem(*pem, *authority);
        if (!revoked) return KelError{kKelFailure, File(kRevoked) + ": " + revoked.Error().message};
        parts.revoked = std::move(*revoked);
    }
    parts.certificate = std::move(*certificate);
    parts.authority = std::move(*authority);
    CompleteNextKey(parts);
    return parts;
}

/// The certificate is written first: when it is for the next key, that one counts.
void KelKeyFolder::CompleteNextKey(KelKeyRing::Parts& parts) const {
    const KelString fingerprint = parts.certificate->Fingerprint();
    if (KeyFingerprint(parts.key.Get()) == fingerprint) return;
    auto next = LoadNextKey();
    if (!next || KeyFingerprint(next->Get()) != fingerprint) return;
    parts.key = std::move(*next);
    std::rename(File(kNextKey).c_str(), File(kKey).c_str());
}

std::optional<KelKeyPair> KelKeyFolder::LoadNextKey() const {
    if (!FileExists(File(kNextKey))) return std::nullopt;
    auto key = KelKeyPair::Load(File(kNextKey));
    return key ? std::optional(std::move(*key)) : std::nullopt;
}

KelStatus KelKeyFolder::MakeNextKey() const {
    const auto key = KelKeyPair::Make();
    return key ? key->Save(File(kNextKey)) : KelStatus(key.Error());
}

KelStatus KelKeyFolder::TakeNextKey(const KelCertificate& certificate) const {
    if (KelStatus saved = SaveCertificate(certificate); !saved) return saved;
    if (std::rename(File(kNextKey).c_str(), File(kKey).c_str()) == 0) return {};
    return SystemError("A key cannot be renamed:", File(kNextKey));
}

KelResult<std::shared_ptr<const KelKeyRing>> KelKeyFolder::Load() const {
    auto parts = LoadParts();
    if (!parts) return parts.Error();
    auto ring = KelKeyRing::Make(std::move(*parts));
    if (!ring) return KelError{kKelFailure, path_ + ": " + ring.Error().message};
    return ring;
}

KelStatus KelKeyFolder::SaveEnrolment(const KelCertificate& certificate, const KelCertificate& authority,
                                      const KelString& groupKey) const {
    FileDelete(File(kRevoked));  // it may be that of another authority
    if (KelStatus saved = FileWriteText(File(kGroupKey), groupKey + "\n"); !saved) return saved;
    if (KelStatus saved = SavePem(File(kAuthority), authority); !saved) return saved;
    return SaveCertificate(certificate);
}

KelStatus KelKeyFolder::SaveCertificate(const KelCertificate& certificate) const {
    return SavePem(File(kCertificate), certificate);
}

KelStatus KelKeyFolder::SaveRevoked(const KelRevocationList& revoked) const {
    return FileWriteText(File(kRevoked), revoked.Pem());
}

KelStatus KelKeyFolder::SaveParent(const KelParentPin& parent) const {
    KelContainer values;
    for (std::uint32_t i = 0; i < parent.places.size(); ++i)
        values.SetString("Place", parent.places[i], i);
    values.SetString("GUID", parent.guid);
    values.SetString("Fingerprint", parent.fingerprint);
    values.SetString("Serial", parent.serial);
    return values.SaveToFile(File(kParent));
}

std::optional<KelString> KelKeyFolder::LoadToken() const {
    KelContainer values;
    if (!FileExists(File(kJoin)) || !values.LoadFromFile(File(kJoin))) return std::nullopt;
    return values.GetString("Token");
}

KelStatus KelKeyFolder::SaveToken(const KelString& token) const {
    KelContainer values;
    values.SetString("Token", token);
    return values.SaveToFile(File(kJoin));
}

void KelKeyFolder::DropToken() const {
    FileDelete(File(kJoin));
}

KelResult<std::shared_ptr<const KelKeyRing>> LoadKeyRing(const KelString& dataDir) {
    return KelKeyFolder(dataDir + "Keys").Load();
}
