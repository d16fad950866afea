// Fields of digest authentication, and the check of credentials without the right password.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "modules/http_protocol/digest_auth.h"
#include "modules/http_protocol/digest_fields.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static KelTreePasswords passwords;
    static const kelhttp::DigestAuth auth("tree", passwords, 300);
    passwords.Set({"a password that the input does not hold", "nor this one, which was in use before"});
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    kelhttp::DigestFields fields;
    kelhttp::ParseDigestFields(input, fields);
    const KelString digest = "Digest " + KelString(input);
    for (const std::string_view authorization : {input, std::string_view(digest)}) {
        kelhttp::DigestAuth::Memory memory;
        if (auth.Check({"GET", "/", authorization, IpAddress(0x7F000001), true}, memory, {}) ==
            kelhttp::DigestAuth::Verdict::Granted)
            std::abort();
    }
    return 0;
}
