#pragma once

#include <cstdint>

#include "kel/result.h"
#include "kel/types.h"

/// Limits for an archive; see ExtractArchive.
struct ExtractionLimits {
    std::uint64_t entries = 10000;
    std::uint64_t bytes = std::uint64_t{4} << 30;  ///< unpacked, in all
    std::uint64_t ratio = 1000;                    ///< unpacked bytes per packed byte, per entry above 1 MiB
};

enum class ExtractionLayout : unsigned char {
    Names,     ///< entries become files of their names, in the folders that these name
    Numbered,  ///< entry N, counted from 0, becomes the file "N" in the destination; no folders are made
};

inline constexpr unsigned int kExtractUnsafe = 16001;
inline constexpr unsigned int kExtractTooLarge = 16002;
inline constexpr unsigned int kExtractDamaged = 16003;

/// Unpacks the zip archive (APPNOTE 6.3) at `archive` into the folder `destination`, which is created. The
/// whole archive is checked first and unpacked to a temporary folder inside or beside the destination, so that
/// a refused or damaged one leaves nothing; files of the same name are replaced. On success all files are on
/// the disk. Codes: 13 no such archive, the three above, 18 the destination cannot be written. Any thread;
/// extractions into one destination may run concurrently.
KelStatus ExtractArchive(const KelString& archive, const KelString& destination,
                         const ExtractionLimits& limits,
                         ExtractionLayout layout = ExtractionLayout::Names);
