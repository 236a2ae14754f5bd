// Constants and small helpers shared by the writer's source files.
#ifndef QLTFSDK_WRITER_WRITER_CONSTANTS_H
#define QLTFSDK_WRITER_WRITER_CONSTANTS_H

#include <cstdint>

#include "platform/platform.h"

namespace qlt::writer {

constexpr uint64_t kForcedFlushBytes = 16777216;  // a flush is forced past this many bytes
constexpr uint64_t kWriteBackChunk = 524288;      // written bytes gathered before their write-back starts
constexpr int32_t kStagingSlack = 1024;           // spare bytes behind each staging buffer
constexpr int32_t kErrorCode = 200;               // the writer's code in the error-code register

// True for the two values that name no file.
inline bool IsBadHandle(HANDLE h) { return h == nullptr || h == INVALID_HANDLE_VALUE; }

}  // namespace qlt::writer

#endif  // QLTFSDK_WRITER_WRITER_CONSTANTS_H
