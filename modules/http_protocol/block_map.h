#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kelhttp {

/// Which blocks of a file are there: one bit each. One thread at a time.
class BlockMap {
  public:
    explicit BlockMap(std::uint32_t total) : total_(total), words_((std::size_t{total} + 63) / 64) {}

    bool Has(std::uint32_t block) const { return (words_[block / 64] >> (block % 64) & 1) != 0; }
    /// A block that was missing is there.
    void Add(std::uint32_t block) {
        words_[block / 64] |= std::uint64_t{1} << (block % 64);
        ++count_;
    }
    void Clear();

    std::uint32_t Count() const { return count_; }
    std::uint32_t Total() const { return total_; }
    bool IsComplete() const { return count_ == total_; }

    struct Range {
        std::uint32_t first;
        std::uint32_t last;
        bool operator==(const Range&) const = default;
    };
    /// The missing blocks as ascending ranges, `limit` at most (at least 1). When there are more, those that
    /// lie close together are joined, with the blocks between them.
    std::vector<Range> Missing(std::size_t limit) const;

  private:
    std::uint32_t Find(std::uint32_t from, bool there) const;
    bool Collect(std::uint32_t gap, std::size_t limit, std::vector<Range>& ranges) const;

    std::uint32_t total_;
    std::uint32_t count_ = 0;
    std::vector<std::uint64_t> words_;
};

}  // namespace kelhttp
