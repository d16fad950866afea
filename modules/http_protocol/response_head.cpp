#include "modules/http_protocol/response_head.h"

#include <array>
#include <ctime>
#include <string>

namespace kelhttp {
namespace {

struct Reason {
    unsigned int status;
    std::string_view text;
};

constexpr Reason kReasons[] = {
    {200, "OK"},
    {201, "Created"},
    {204, "No Content"},
    {206, "Partial Content"},
    {304, "Not Modified"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {409, "Conflict"},
    {411, "Length Required"},
    {413, "Content Too Large"},
    {415, "Unsupported Media Type"},
    {416, "Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {503, "Service Unavailable"},
    {505, "HTTP Version Not Supported"},
    {507, "Insufficient Storage"},
};

/// The present time as an HTTP date, made once a second for each thread.
std::string_view DateText() {
    thread_local std::time_t made = 0;
    thread_local std::array<char, 32> text{};
    thread_local std::size_t length = 0;
    const std::time_t now = std::time(nullptr);
    if (now != made) {
        std::tm parts{};
        ::gmtime_r(&now, &parts);
        length = std::strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
        made = now;
    }
    return {text.data(), length};
}

}  // namespace

std::string_view ReasonOf(unsigned int status) {
    for (const Reason& reason : kReasons) {
        if (reason.status == status) return reason.text;
    }
    return "Unknown";
}

KelString MakeResponseHead(unsigned int status, std::string_view headers, std::string_view connection) {
    KelString head;
    head.reserve(160 + headers.size());
    head.append("HTTP/1.1 ").append(std::to_string(status)).append(" ").append(ReasonOf(status));
    head.append("\r\nDate: ").append(DateText()).append("\r\n");
    if (!connection.empty()) head.append("Connection: ").append(connection).append("\r\n");
    head.append(headers).append("\r\n");
    return head;
}

}  // namespace kelhttp
