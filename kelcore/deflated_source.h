#pragma once

#include <memory>

#include "kel/types.h"

struct libdeflate_compressor;
struct zip;
struct zip_source;

/// Deflates blocks of memory (RFC 1951) at one level. One thread at a time.
class Deflater {
  public:
    explicit Deflater(int level);  ///< 1 (fast) to 9 (small)

    int GetLevel() const { return level_; }
    void Deflate(const KelString& content, KelVector<char>& packed);  ///< replaces `packed`

  private:
    struct Free {
        void operator()(libdeflate_compressor* compressor) const;
    };
    int level_;
    std::unique_ptr<libdeflate_compressor, Free> compressor_;
};

/// The largest file that MakeDeflatedSource takes: it is held in memory, whole and packed, while it is
/// written.
inline constexpr std::int64_t kMaxDeflatedSource = std::int64_t{8} << 20;

/// A source for zip_file_add that gives the file `path` deflated; several times as fast as the deflate stream
/// of the archive library. The file is read when `archive` is closed and must stay until then. Null when
/// memory is short, with the error in the archive.
zip_source* MakeDeflatedSource(zip* archive, const KelString& path, std::shared_ptr<Deflater> deflater);
