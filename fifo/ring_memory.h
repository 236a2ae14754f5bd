// Memory for ring buffers.
//
// Rings of 1 MiB or more take whole regions from the platform (large pages
// where offered) and, when freed, leave them in a small process-wide store,
// so that the next ring of the same size (the next file's write cache, the
// next read-ahead) starts on memory the process has touched already rather
// than on fresh zero-filled pages, whose first touches cost as much as the
// copies into them. A fresh region has every page touched before it is
// returned, so that cost falls on the ring's set-up, not on the host's
// first copies. The store keeps at most kKeptRegions regions and
// kKeptBytes bytes; the oldest region goes back to the system first.
// Smaller rings use the heap.
//
// Thread rule: any thread; the store has its own lock.
#ifndef QLTFSDK_FIFO_RING_MEMORY_H
#define QLTFSDK_FIFO_RING_MEMORY_H

#include <cstddef>

#include "platform/platform.h"

namespace qlt::fifo {

constexpr size_t kRegionFrom = size_t{1} << 20;   // smaller buffers come from the heap
constexpr size_t kKeptRegions = 4;                // regions the store holds at most
constexpr size_t kKeptBytes = size_t{192} << 20;  // and their bytes together

// nSize bytes (at least 1) for a ring: a kept region of exactly that size
// when there is one, otherwise new memory (not zeroed either way). Null
// when memory runs out. The caller gives it back with FreeRingMemory and
// the same size.
BYTE* AllocRingMemory(size_t nSize) noexcept;
// Gives back what AllocRingMemory returned for nSize (null: nothing).
void FreeRingMemory(BYTE* pMemory, size_t nSize) noexcept;
// Returns every kept region to the system.
void ReleaseKeptRingMemory() noexcept;

}  // namespace qlt::fifo

#endif  // QLTFSDK_FIFO_RING_MEMORY_H
