// Heads of requests, as they arrive before any credentials are checked.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "modules/http_protocol/protected_files.h"
#include "modules/http_protocol/request_head.h"
#include "modules/http_protocol/request_path.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = kelhttp::FindHeadEnd(input);
    // Bytes that follow must not move the end of a head.
    if (end != std::string_view::npos && kelhttp::FindHeadEnd(input.substr(0, end)) != end) std::abort();
    kelhttp::RequestHead request;
    if (kelhttp::ParseRequestHead(input.substr(0, end), request) != 0) return 0;
    if (request.chunked && request.contentLength) std::abort();
    for (const auto& [name, value] : request.fields) {
        if (name.find_first_of(" \t\r\n:") != std::string_view::npos) std::abort();
        if (value.find_first_of("\r\n") != std::string_view::npos) std::abort();
    }
    if (const auto path = kelhttp::DecodeRequestPath(request.target)) {
        if (!path->starts_with('/') || path->find('\0') != KelString::npos) std::abort();
        if ((*path + "/").find("/../") != KelString::npos) std::abort();
        kelhttp::IsServableName(*path);
    }
    return 0;
}
