#include "modules/http_protocol/block_map.h"

#include <algorithm>
#include <bit>

namespace kelhttp {

void BlockMap::Clear() {
    std::ranges::fill(words_, 0);
    count_ = 0;
}

/// The first block from `from` on that is there (or missing), the total when there is none.
std::uint32_t BlockMap::Find(std::uint32_t from, bool there) const {
    while (from < total_) {
        const std::uint64_t word = there ? words_[from / 64] : ~words_[from / 64];
        const auto skip = static_cast<std::uint32_t>(std::countr_zero(word >> (from % 64)));
        if (skip < 64) return std::min(from + skip, total_);
        from = (from / 64 + 1) * 64;
    }
    return total_;
}

/// Joins ranges that at most `gap` blocks separate; false when there are more than `limit` all the same.
bool BlockMap::Collect(std::uint32_t gap, std::size_t limit, std::vector<Range>& ranges) const {
    ranges.clear();
    for (std::uint32_t first = Find(0, false); first < total_;) {
        const std::uint32_t end = Find(first, true);
        if (!ranges.empty() && first - ranges.back().last - 1 <= gap)
            ranges.back().last = end - 1;
        else if (ranges.size() < limit)
            ranges.push_back({first, end - 1});
        else
            return false;
        first = Find(end, false);
    }
    return true;
}

std::vector<BlockMap::Range> BlockMap::Missing(std::size_t limit) const {
    std::vector<Range> ranges;
    for (std::uint32_t gap = 0; !Collect(gap, limit, ranges);)
        gap = 2 * gap + 1;
    return ranges;
}

}  // namespace kelhttp
