#pragma once

#include <cstddef>
#include <cstdint>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

/// Reads the stages of a publication, Stage[i] (int32): the percentage of the targets that have been released
/// with each stage. Rising numbers from 1 to 100, the last one 100; none: all targets at once.
KelResult<KelVector<std::int32_t>> ReadStagePercents(const KelContainer& arguments);

/// For each stage the number of targets that it and those before it have. Every stage adds at least one
/// target: a stage that would add none is left out. One stage of all without percentages.
KelVector<std::size_t> StageEnds(const KelVector<std::int32_t>& percents, std::size_t targets);

/// The stage, 1 for the first, of the target at `index`.
std::int32_t StageOf(const KelVector<std::size_t>& ends, std::size_t index);
