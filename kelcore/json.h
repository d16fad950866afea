#pragma once

#include <cstddef>
#include <string_view>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

// The JSON form (RFC 8259) of containers, for scripts and people. A container is an object; a name with one
// value is a member, a name with several is an array of them. Unlike the XML form it does not keep
// everything: bytes that are no UTF-8 become U+FFFD, and an integer comes back as the narrowest type that
// holds it. Any thread.

KelString ContainerToJson(const KelContainer& container);

/// Replaces the content by what `json` holds, an object of at most `maxValues` values and 64 levels in a text
/// of at most 64 MiB.
/// Integers that fit 32 bits become int32, others int64; an empty array gives no value. Fractions, null,
/// arrays within arrays and repeated names have no container form and are errors. A blank text gives an empty
/// container. On an error the container is left empty.
KelStatus ContainerFromJson(std::string_view json, KelContainer& container,
                            std::size_t maxValues = KelContainer::kMaxValues);
