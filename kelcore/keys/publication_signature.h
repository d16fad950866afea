#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/result.h"
#include "kelcore/file_key.h"
#include "kelcore/keys/certificate.h"

class KelKeyRing;

/// What the master says of a publication, and signs.
struct KelPublication {
    FileKey file;
    std::int64_t size = 0;  ///< bytes
    KelString sha256;       ///< of the content, 64 lower-case hexadecimal digits
    KelString id;
    /// Seconds since the epoch, by the master's clock, and the sequence number: of two publications of the
    /// same type, label and name, the later one has the higher time.
    std::int64_t time = 0;
    KelVector<KelString> devices;  ///< GUIDs of those that it is for; empty: every device of the tree

    /// From the FileInfo of the file or of an order for it: PublicationId, PublicationTime and, in the
    /// container Signed, Size, Sha256 and Device (several). An error unless every value can be right.
    static KelResult<KelPublication> Read(const FileKey& file, const KelContainer& info);

    /// The same values, with the file key.
    KelContainer ToContainer() const;

    /// What is signed: fields, each with its length in four bytes, most significant first. The fields are
    /// "kel publication 1", type, label, name, checksum (lower-case), size (decimal), SHA-256, identifier,
    /// time (decimal), and each device.
    KelString SignedBytes() const;

    bool IsFor(const KelString& guid) const;
};

/// The key with which a master signs, and the authority's certificate for it. A value; any thread.
class KelSigner {
  public:
    KelSigner(KelKeyPair key, KelCertificate certificate)
        : key_(std::move(key)), certificate_(std::move(certificate)) {}

    /// The container Signed: Size, Sha256, Device (several), Certificate (DER) and Signature, both in base64.
    KelResult<KelContainer> Sign(const KelPublication& publication) const;

  private:
    KelKeyPair key_;
    KelCertificate certificate_;
};

/// What the master of the tree has signed of `file`, by its FileInfo or that of an order for it. The error
/// says, as the end of a sentence, why that is nothing. `now`: seconds since the epoch.
KelResult<KelPublication> VerifiedPublication(const FileKey& file, const KelContainer& info,
                                              const KelKeyRing& keys, std::int64_t now);
