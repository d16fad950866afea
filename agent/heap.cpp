#include "agent/heap.h"

#include <malloc.h>

namespace {

/// Few threads of an agent work at a time.
constexpr int kHeaps = 4;
/// Buffers of this size are mapped, and unmapped when they are freed.
constexpr int kLargeBytes = 128 << 10;

}  // namespace

// By default each thread may get a heap of its own, up to eight for each core, and every heap keeps what it
// has freed up to twice the largest buffer that was ever released. With the buffers of 512 KiB that transfers
// use, four fifths of the memory of an agent were free.
void LimitHeaps() {
    mallopt(M_ARENA_MAX, kHeaps);
    mallopt(M_MMAP_THRESHOLD, kLargeBytes);  // setting these also stops them from growing
    mallopt(M_TRIM_THRESHOLD, kLargeBytes);
}

// A heap gives back only what is free at its end. The small pieces of a large answer, such as a list of
// files, lie in front of something that is still in use.
void ReleaseFreeMemory() {
    malloc_trim(0);
}
