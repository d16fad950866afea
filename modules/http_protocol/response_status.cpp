#include "modules/http_protocol/response_status.h"

#include <algorithm>

#include "kel/types.h"

namespace kelhttp {
namespace {

struct Reason {
    unsigned int status;
    std::string_view text;
};

constexpr auto kReasons = std::to_array<Reason>({
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
    {422, "Unprocessable Content"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {503, "Service Unavailable"},
    {505, "HTTP Version Not Supported"},
    {507, "Insufficient Storage"},
});

constexpr KelMetric kResponses(KelMetric::Kind::Counter, "kel_http_responses_total",
                               "Answers of the HTTP server, by status.");

const Reason* Find(unsigned int status) {
    return std::ranges::find(kReasons, status, &Reason::status);
}

}  // namespace

std::string_view ReasonOfStatus(unsigned int status) {
    const Reason* const reason = Find(status);
    return reason != kReasons.end() ? reason->text : "Unknown";
}

void ResponseCounters::Count(unsigned int status) {
    static_assert(kStatuses == kReasons.size());
    const Reason* const reason = Find(status);
    if (reason != kReasons.end()) counters_[static_cast<std::size_t>(reason - kReasons.begin())].Add();
}

void ResponseCounters::Collect(KelMetricsPage& page) const {
    for (std::size_t i = 0; i < kStatuses; ++i)
        page.Add(kResponses, {{"code", std::to_string(kReasons[i].status)}}, counters_[i]);
}

}  // namespace kelhttp
