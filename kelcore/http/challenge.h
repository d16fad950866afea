#pragma once

#include <string_view>

/// True unless `challenge`, the value of a WWW-Authenticate field, asks for a digest (RFC 7616) that is not
/// made with SHA-256, or cannot be read without doubt. An answer to a weaker one, which any server on the way
/// can ask for, would let the password be guessed cheaply.
bool IsSafeChallenge(std::string_view challenge);
