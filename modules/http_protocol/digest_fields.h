#pragma once

#include <string_view>

#include "kel/types.h"

namespace kelhttp {

/// The parameters of a digest Authorization field (RFC 7616, section 3.4) that are used here; unknown ones
/// are skipped.
struct DigestFields {
    KelString username, realm, nonce, uri, response, algorithm, cnonce, qop, nc;
};

/// Parses what follows "Digest "; false when it is malformed or names a parameter twice.
bool ParseDigestFields(std::string_view text, DigestFields& fields);

}  // namespace kelhttp
