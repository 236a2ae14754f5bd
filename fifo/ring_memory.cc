// The ring memory store: a short array of released regions, oldest first.
#include "fifo/ring_memory.h"

#include <new>

namespace qlt::fifo {
namespace {

struct Region {
  BYTE* p = nullptr;
  size_t n = 0;
};

struct Store {
  Store() { InitializeCriticalSection(&lock); }
  CRITICAL_SECTION lock;
  Region kept[kKeptRegions] GUARDED_BY(lock);  // [0, nKept) in the order released
  size_t nKept GUARDED_BY(lock) = 0;
  size_t nKeptBytes GUARDED_BY(lock) = 0;  // the sum of their sizes
};

Store& TheStore() {
  static Store* store = new Store;  // outlives rings freed by static destructors
  return *store;
}

// Removes kept[i] and returns it.
Region TakeLocked(Store& s, size_t i) REQUIRES(s.lock) {
  Region r = s.kept[i];
  for (size_t j = i + 1; j < s.nKept; ++j) s.kept[j - 1] = s.kept[j];
  --s.nKept;
  s.nKeptBytes -= r.n;
  return r;
}

}  // namespace

BYTE* AllocRingMemory(size_t nSize) noexcept {
  if (nSize == 0) nSize = 1;
  if (nSize < kRegionFrom) return new (std::nothrow) BYTE[nSize];
  {
    Store& s = TheStore();
    CAutoLock lock(&s.lock);
    for (size_t i = s.nKept; i-- > 0;) {  // the most recently released first: the warmest
      if (s.kept[i].n == nSize) return TakeLocked(s, i).p;
    }
  }
  BYTE* p = static_cast<BYTE*>(VirtualAlloc(nullptr, nSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
  // New pages are touched here, when the ring is set up (the file's open,
  // the read-ahead's start), so their first-touch faults (with large pages,
  // a zero-fill of 2 MiB each) do not land inside a host's write or read
  // that copies into the ring. One byte per 4 KiB page reaches every page.
  if (p)
    for (size_t at = 0; at < nSize; at += 4096) p[at] = 0;
  return p;
}

void FreeRingMemory(BYTE* pMemory, size_t nSize) noexcept {
  if (!pMemory) return;
  if (nSize == 0) nSize = 1;
  if (nSize < kRegionFrom) {
    delete[] pMemory;
    return;
  }
  Region gone[kKeptRegions + 1];  // given back to the system outside the lock
  size_t nGone = 0;
  if (nSize > kKeptBytes) {
    gone[nGone++] = {pMemory, nSize};
  } else {
    Store& s = TheStore();
    CAutoLock lock(&s.lock);
    while (s.nKept == kKeptRegions || s.nKeptBytes + nSize > kKeptBytes) gone[nGone++] = TakeLocked(s, 0);
    s.kept[s.nKept++] = {pMemory, nSize};
    s.nKeptBytes += nSize;
  }
  for (size_t i = 0; i < nGone; ++i) VirtualFree(gone[i].p, 0, MEM_RELEASE);
}

void ReleaseKeptRingMemory() noexcept {
  Region gone[kKeptRegions];
  size_t nGone = 0;
  {
    Store& s = TheStore();
    CAutoLock lock(&s.lock);
    while (s.nKept > 0) gone[nGone++] = TakeLocked(s, 0);
  }
  for (size_t i = 0; i < nGone; ++i) VirtualFree(gone[i].p, 0, MEM_RELEASE);
}

}  // namespace qlt::fifo
