#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <ctime>
#include <memory>
#include <string_view>

#include "kel/result.h"
#include "kel/types.h"

// Owners of OpenSSL's objects and what several files of this folder do with them. Only for the sources of
// this folder: its other headers name OpenSSL's types without including their definitions.

template <auto Free>
struct OpenSslFree {
    template <class Object>
    void operator()(Object* object) const {
        Free(object);
    }
};
template <class Object, auto Free>
using OpenSslOwner = std::unique_ptr<Object, OpenSslFree<Free>>;

using BioOwner = OpenSslOwner<BIO, &BIO_free>;
using X509Owner = OpenSslOwner<X509, &X509_free>;
using X509StoreOwner = OpenSslOwner<X509_STORE, &X509_STORE_free>;
using X509StoreContextOwner = OpenSslOwner<X509_STORE_CTX, &X509_STORE_CTX_free>;

/// Reads a text without copying it; null when memory runs out.
BioOwner ReadingBio(std::string_view text);
/// What was written to a memory BIO.
KelString TextOf(BIO* bio);

/// The failure of a call of OpenSSL, as "WHAT: the library's reason". Empties the library's error queue.
KelError OpenSslError(const char* what);

/// Seconds since the epoch; 0 for a time that cannot be represented.
std::int64_t TimeOf(const ASN1_TIME* time);

/// "2026-02-01 17:30 UTC".
KelString DateText(std::int64_t time);

/// The hexadecimal digits of a serial number, in upper case.
KelString SerialText(const ASN1_INTEGER* serial);

/// A positive random serial number of 127 bits (RFC 5280, section 4.1.2.2).
bool SetRandomSerial(ASN1_INTEGER* serial);

/// Adds an extension in the notation of OpenSSL's configuration files.
bool AddExtension(X509* certificate, X509* issuer, int nid, const KelString& value);
