// Constants and small helpers shared by the writer's source files.
#ifndef QLTFSDK_WRITER_WRITER_CONSTANTS_H
#define QLTFSDK_WRITER_WRITER_CONSTANTS_H

#include <cstdint>

#include "platform/platform.h"

namespace qlt::writer {

constexpr uint64_t kForcedFlushBytes = 16777216;  // a flush is forced past this many bytes
constexpr uint64_t kWriteBackChunk = 524288;      // written bytes gathered before their write-back starts
constexpr int32_t kStagingSlack = 1024;           // spare bytes behind each staging buffer
// The staging buffer starts on this boundary: a file opened without system
// buffering takes transfers only from sector-aligned memory.
constexpr size_t kStagingAlign = 4096;

// The first kStagingAlign-aligned byte of a block allocated with
// kStagingAlign - 1 spare bytes.
inline BYTE* AlignStaging(BYTE* pBlock) {
  auto n = reinterpret_cast<uintptr_t>(pBlock);
  return pBlock + ((kStagingAlign - n % kStagingAlign) % kStagingAlign);
}
constexpr int32_t kErrorCode = 200;  // the writer's code in the error-code register

// True for the two values that name no file.
inline bool IsBadHandle(HANDLE h) { return h == nullptr || h == INVALID_HANDLE_VALUE; }

}  // namespace qlt::writer

#endif  // QLTFSDK_WRITER_WRITER_CONSTANTS_H
