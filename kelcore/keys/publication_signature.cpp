#include "kelcore/keys/publication_signature.h"

#include <algorithm>
#include <initializer_list>

#include "kel/base64.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/file_values.h"
#include "kelcore/keys/key_ring.h"
#include "kelcore/keys/openssl_objects.h"

namespace {

constexpr const char* kForm = "kel publication 1";
constexpr std::size_t kSha256Digits = 64;
constexpr std::size_t kSignatureBytes = 64;
constexpr std::uint32_t kMaxDevices = 1000;

constexpr const char* kSize = "Size";
constexpr const char* kSha256 = "Sha256";
constexpr const char* kDevice = "Device";
constexpr const char* kCertificate = "Certificate";
constexpr const char* kSignature = "Signature";

using DigestContextOwner = OpenSslOwner<EVP_MD_CTX, &EVP_MD_CTX_free>;

KelError Unusable(const char* what) {
    return {kKelFailure, KelFormat("its %s cannot be that of a publication", what)};
}

void AppendField(KelString& bytes, const KelString& field) {
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(static_cast<unsigned char>(field.size() >> shift));
    bytes += field;
}

bool IsSha256(const KelString& text) {
    return text.size() == kSha256Digits && text.find_first_not_of("0123456789abcdef") == KelString::npos;
}

/// The container Signed, without the signature.
KelContainer SignedValues(const KelPublication& publication) {
    KelContainer values;
    values.SetInt64(kSize, publication.size);
    values.SetString(kSha256, publication.sha256);
    for (std::uint32_t i = 0; i < publication.devices.size(); ++i)
        values.SetString(kDevice, publication.devices[i], i);
    return values;
}

const unsigned char* BytesOf(const KelString& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

bool IsSignedBy(evp_pkey_st* key, const KelString& bytes, const KelString& signature) {
    const DigestContextOwner context(EVP_MD_CTX_new());
    return context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key) == 1 &&
           EVP_DigestVerify(context.get(), BytesOf(signature), signature.size(), BytesOf(bytes),
                            bytes.size()) == 1;
}

}  // namespace

KelResult<KelPublication> KelPublication::Read(const FileKey& file, const KelContainer& info) {
    const KelContainer& values = info.GetContainer(kValueSigned);
    KelPublication read{file,
                        values.GetInt64(kSize, -1),
                        values.GetString(kSha256),
                        info.GetString(kValuePublicationId),
                        info.GetInt64(kValuePublicationTime),
                        {}};
    if (read.size < 0) return Unusable("size");
    if (!IsSha256(read.sha256)) return Unusable("SHA-256 digest");
    if (!IsSafePathElement(read.id)) return Unusable("identifier");
    if (read.time <= 0) return Unusable("time");
    const std::uint32_t count = values.Has(kDevice) ? values.Count(kDevice) : 0;
    if (count > kMaxDevices) return Unusable("number of devices");
    for (std::uint32_t i = 0; i < count; ++i) {
        read.devices.push_back(values.GetString(kDevice, {}, i));
        if (!IsGuid(read.devices.back())) return Unusable("device");
    }
    return read;
}

KelContainer KelPublication::ToContainer() const {
    KelContainer made;
    file.Write(made);
    made.SetString(kValuePublicationId, id);
    made.SetInt64(kValuePublicationTime, time);
    made.SetContainer(kValueSigned, SignedValues(*this));
    return made;
}

KelString KelPublication::SignedBytes() const {
    KelString bytes;
    for (const KelString& field :
         {KelString(kForm), file.type, file.label, file.name, ToLowerText(file.checksum),
          KelFormat("%gd", size), sha256, id, KelFormat("%gd", time)})
        AppendField(bytes, field);
    for (const KelString& device : devices)
        AppendField(bytes, device);
    return bytes;
}

bool KelPublication::IsFor(const KelString& guid) const {
    return devices.empty() || std::ranges::find(devices, guid) != devices.end();
}

KelResult<KelContainer> KelSigner::Sign(const KelPublication& publication) const {
    const auto certificate = certificate_.ToDer();
    if (!certificate) return certificate.Error();
    const KelString bytes = publication.SignedBytes();
    KelString signature(kSignatureBytes, '\0');
    std::size_t length = signature.size();
    const DigestContextOwner context(EVP_MD_CTX_new());
    if (!context || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.Get()) != 1 ||
        EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                       BytesOf(bytes), bytes.size()) != 1)
        return OpenSslError("A publication cannot be signed");
    KelContainer made = SignedValues(publication);
    made.SetString(kCertificate, Base64Encode(*certificate));
    made.SetString(kSignature, Base64Encode(signature));
    return made;
}

KelResult<KelPublication> VerifiedPublication(const FileKey& file, const KelContainer& info,
                                              const KelKeyRing& keys, std::int64_t now) {
    if (!info.Has(kValueSigned)) return KelError{kKelFailure, "it is not signed"};
    auto read = KelPublication::Read(file, info);
    if (!read) return read.Error();
    const KelContainer& values = info.GetContainer(kValueSigned);
    const auto der = Base64Decode(values.GetString(kCertificate));
    const auto signature = Base64Decode(values.GetString(kSignature));
    if (!der || !signature) return KelError{kKelFailure, "its signature is malformed"};
    const auto certificate = KelCertificate::FromDer(*der);
    if (!certificate) return KelError{kKelFailure, "its signature comes with no certificate"};
    if (KelString problem = keys.SignerProblem(certificate->Get(), now); !problem.empty())
        return KelError{kKelFailure, std::move(problem)};
    if (!IsSignedBy(X509_get0_pubkey(certificate->Get()), read->SignedBytes(), *signature))
        return KelError{kKelFailure, "its signature is that of something else"};
    return read;
}
