#include "kelcore/file_status_name.h"

#include <array>
#include <string_view>
#include <utility>

namespace {

constexpr std::string_view kStatusPrefix = "_AGTMOD_FILESTORESTATUS_";

/// The statuses whose names are more than their lower-case letters.
constexpr auto kStatuses = std::to_array<std::pair<std::string_view, std::string_view>>({
    {"tobehandled", "to_be_handled"},
    {"tobepacked", "to_be_packed"},
    {"toberequested", "to_be_requested"},
    {"tobeuploaded", "to_be_uploaded"},
    {"multicastlistening", "multicast_listening"},
    {"notrelayschild", "not_relays_child"},
    {"packedfile", "packed"},
});

}  // namespace

KelString FileStatusName(const KelString& status) {
    if (!status.starts_with(kStatusPrefix) || !status.ends_with('_')) return status;
    KelString name = status.substr(kStatusPrefix.size(), status.size() - kStatusPrefix.size() - 1);
    for (char& c : name)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    for (const auto& [letters, written] : kStatuses)
        if (name == letters) return KelString(written);
    return name;
}
