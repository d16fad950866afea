#pragma once

#include <string_view>

#include "kel/types.h"

namespace kelhttp {

/// The parameters of a digest Authorization field (RFC 7616, section 3.4) that are used here.
struct DigestFields {
    KelString username, realm, nonce, uri, response, algorithm, cnonce, qop, nc;
};

/// Parses the text after "Digest "; unknown parameters are skipped. False when it is malformed or repeats a
/// parameter.
bool ParseDigestFields(std::string_view text, DigestFields& fields);

}  // namespace kelhttp
