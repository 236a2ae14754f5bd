// Large committed regions: anonymous mappings, with large pages asked for
// from 2 MiB on.
#include <sys/mman.h>

#include <cstddef>
#include <unordered_map>

#include "platform/internal.h"

using namespace qlt::plat;

namespace {

constexpr size_t kLargePage = size_t{2} << 20;

// Region start -> length: VirtualFree releases by address alone, munmap
// needs the length.
CRITICAL_SECTION& RegionLock() {
  static CRITICAL_SECTION* m = new CRITICAL_SECTION;  // outlives static destructors, as the map does
  return *m;
}
std::unordered_map<void*, size_t>& Regions() {                   // guarded by RegionLock()
  static auto* regions = new std::unordered_map<void*, size_t>;  // outlives static destructors
  return *regions;
}

}  // namespace

LPVOID qlt::win::VirtualAlloc(LPVOID pAddress, SIZE_T nSize, DWORD dwAllocationType, DWORD dwProtect) {
  if (pAddress || nSize == 0 || dwAllocationType != (MEM_COMMIT | MEM_RESERVE) || dwProtect != PAGE_READWRITE) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  return NoThrow<LPVOID>(nullptr, [&]() -> LPVOID {
    faults::CheckAlloc();
    void* p = ::mmap(nullptr, nSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return nullptr;
    }
    // A hint only: without large pages the region works the same.
    if (nSize >= kLargePage) ::madvise(p, nSize, MADV_HUGEPAGE);
    try {
      CAutoLock lock(&RegionLock());
      Regions().emplace(p, nSize);
    } catch (...) {
      ::munmap(p, nSize);
      throw;
    }
    return p;
  });
}

BOOL qlt::win::VirtualFree(LPVOID pAddress, SIZE_T nSize, DWORD dwFreeType) {
  size_t nLength = 0;
  if (pAddress && nSize == 0 && dwFreeType == MEM_RELEASE) {
    CAutoLock lock(&RegionLock());
    auto it = Regions().find(pAddress);
    if (it != Regions().end()) {
      nLength = it->second;
      Regions().erase(it);
    }
  }
  if (nLength == 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  ::munmap(pAddress, nLength);
  return TRUE;
}
