#include "kel/regex.h"

#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

namespace {

/// Patterns come from configuration; more than this says that one is built from data, and the kept ones are
/// dropped.
constexpr std::size_t kMaxKeptPatterns = 256;
/// Bounds the time that a pattern with nested repetitions can take on a hostile text.
constexpr std::uint32_t kMatchLimit = 1'000'000;
constexpr std::uint32_t kHeapLimitKib = 64 * 1024;

template <class Object, void (*Release)(Object*)>
struct Deleter {
    void operator()(Object* object) const { Release(object); }
};
using Code = std::unique_ptr<pcre2_code, Deleter<pcre2_code, pcre2_code_free>>;
using MatchData = std::unique_ptr<pcre2_match_data, Deleter<pcre2_match_data, pcre2_match_data_free>>;
using MatchContext =
    std::unique_ptr<pcre2_match_context, Deleter<pcre2_match_context, pcre2_match_context_free>>;

void LogProblem(const char* what, const KelString& pattern, int error) {
    PCRE2_UCHAR text[256] = {};
    pcre2_get_error_message(error, text, sizeof text);
    std::fprintf(stderr, "%s \"%s\": %s\n", what, pattern.c_str(), reinterpret_cast<const char*>(text));
}

/// Null when the pattern is malformed.
std::shared_ptr<const pcre2_code> Compile(const KelString& pattern) {
    int error = 0;
    PCRE2_SIZE offset = 0;
    Code code(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                            PCRE2_UTF | PCRE2_MATCH_INVALID_UTF, &error, &offset, nullptr));
    if (!code) {
        LogProblem("Correct this regular expression, it matches nothing:", pattern, error);
        return nullptr;
    }
    pcre2_jit_compile(code.get(), PCRE2_JIT_COMPLETE);
    return {std::move(code)};
}

/// Compiles a pattern at its first use; malformed ones are kept as null, so that each is logged once.
std::shared_ptr<const pcre2_code> Kept(const KelString& pattern) {
    static std::mutex mutex;
    static KelHash<KelString, std::shared_ptr<const pcre2_code>> codes;
    const std::lock_guard lock(mutex);
    const auto found = codes.find(pattern);
    if (found != codes.end()) return found->second;
    if (codes.size() >= kMaxKeptPatterns) codes.clear();
    return codes[pattern] = Compile(pattern);
}

}  // namespace

bool FindPcre(const KelString& pattern, const KelString& text, KelVector<KelString>& captures) {
    const auto code = Kept(pattern);
    if (!code) return false;
    const MatchData data(pcre2_match_data_create_from_pattern(code.get(), nullptr));
    const MatchContext context(pcre2_match_context_create(nullptr));
    if (!data || !context) return false;
    pcre2_set_match_limit(context.get(), kMatchLimit);
    pcre2_set_heap_limit(context.get(), kHeapLimitKib);
    const auto search = [&](std::uint32_t options) {
        return pcre2_match(code.get(), reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), 0, options,
                           data.get(), context.get());
    };
    int result = search(0);
    if (result == PCRE2_ERROR_JIT_STACKLIMIT) result = search(PCRE2_NO_JIT);
    if (result < 0) {
        if (result != PCRE2_ERROR_NOMATCH)
            LogProblem("Simplify this regular expression, a search gave up:", pattern, result);
        return false;
    }
    std::uint32_t groups = 0;
    pcre2_pattern_info(code.get(), PCRE2_INFO_CAPTURECOUNT, &groups);
    const PCRE2_SIZE* offsets = pcre2_get_ovector_pointer(data.get());
    KelVector<KelString> found;  // `text` may be an element of `captures`
    for (std::size_t i = 0; i <= groups; ++i) {
        const PCRE2_SIZE start = offsets[2 * i];
        const PCRE2_SIZE end = offsets[2 * i + 1];
        const bool tookPart = start != PCRE2_UNSET && start <= end;
        found.push_back(tookPart ? text.substr(start, end - start) : KelString());
    }
    captures = std::move(found);
    return true;
}
