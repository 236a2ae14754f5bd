// The local file's seek, size and read-back, and the one platform seek
// shared with the cache thread.
#include "diagnostics/error_entries.h"
#include "platform/platform.h"
#include "writer/kx_file_ex.h"

BOOL KxFileEx::Seek(LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos, DWORD dwMoveMethod) {
  const int64_t distance = liDistance.QuadPart;
  LARGE_INTEGER newPos{};
  if (UsesCache()) {
    // The cache thread makes the platform seek, in order with the writes.
    if (m_info.nOpMode == 1 || !m_cache.HasPool()) {
      SetLastError(ERROR_INVALID_FUNCTION);
      return 0;
    }
    // The file system's end lies beyond the bytes written while a preset
    // allocation is in place: every seek is queued from the beginning.
    uint64_t target = 0;
    if (!ManagedTarget(distance, dwMoveMethod, &target)) return 0;
    bool bQueued = m_cache.QueueSeek(target);
    m_nLogicalPos = target;
    if (pNewPos) pNewPos->QuadPart = static_cast<LONGLONG>(m_nLogicalPos);
    return bQueued ? 1 : 0;
  }
  try {
    if (m_nStaged > 0) {
      if (!WriteOutStaged()) return 0;
      ::FlushFileBuffers(m_hFile);
    }
    const bool bManaged = m_info.nOpMode == 2;
    LARGE_INTEGER to = liDistance;
    DWORD dwMethod = dwMoveMethod;
    if (bManaged) {
      // In managed mode the writer's own view decides: FILE_END is the
      // furthest byte written, not the end of a preset allocation.
      uint64_t target = 0;
      if (!ManagedTarget(distance, dwMoveMethod, &target)) {
        LogEntry(SeekFailedEntry(distance, 0));
        SetLastError(ERROR_NEGATIVE_SEEK);
        return 0;
      }
      to.QuadPart = static_cast<LONGLONG>(target);
      dwMethod = FILE_BEGIN;
    }
    if (!SeekFile(to, dwMethod, distance, bManaged, newPos)) return 0;
    if (pNewPos) *pNewPos = newPos;
    if (bManaged) m_nLogicalPos = m_nPhysPos;
    return 1;
  } catch (...) {
    LogEntry(SeekExceptionEntry(distance, newPos.QuadPart));
    throw;
  }
}

bool KxFileEx::SeekFile(LARGE_INTEGER liTo, DWORD dwMoveMethod, int64_t nLoggedDistance, bool bExtend,
                        LARGE_INTEGER& newPos) {
  if (!::SetFilePointerEx(m_hFile, liTo, &newPos, dwMoveMethod)) {
    LogEntry(SeekFailedEntry(nLoggedDistance, newPos.QuadPart));
    return false;
  }
  // The next block is written here, and a retry rewrites from here.
  m_nGoodPos = m_nPhysPos = static_cast<uint64_t>(newPos.QuadPart);
  if (bExtend && m_nPhysPos > m_nExtent) m_nExtent = m_nPhysPos;
  return true;
}

bool KxFileEx::CacheSeek(LARGE_INTEGER liDistance, DWORD dwMoveMethod) {
  // Every seek the cache queues is absolute and in managed mode.
  LARGE_INTEGER newPos{};
  return SeekFile(liDistance, dwMoveMethod, liDistance.QuadPart, true, newPos);
}

bool KxFileEx::ManagedTarget(int64_t nDistance, DWORD dwMoveMethod, uint64_t* pTarget) const {
  int64_t base = 0;
  switch (dwMoveMethod) {
    case FILE_BEGIN: base = 0; break;
    case FILE_CURRENT: base = static_cast<int64_t>(m_nLogicalPos); break;
    case FILE_END: base = static_cast<int64_t>(m_nLogicalSize); break;
    default: SetLastError(ERROR_INVALID_PARAMETER); return false;
  }
  int64_t target = 0;
  if (__builtin_add_overflow(base, nDistance, &target) || target < 0) {
    SetLastError(ERROR_NEGATIVE_SEEK);
    return false;
  }
  *pTarget = static_cast<uint64_t>(target);
  return true;
}

BOOL KxFileEx::GetSize(PLARGE_INTEGER pSize) {
  if (m_info.nOpMode == 2 || UsesCache()) {
    if (pSize) pSize->QuadPart = static_cast<LONGLONG>(m_nLogicalSize);
    return 1;
  }
  return ::GetFileSizeEx(m_hFile, pSize);
}

DWORD KxFileEx::GetSize32(LPDWORD pHigh) {
  if (m_info.nOpMode == 2 || UsesCache()) {
    if (pHigh) *pHigh = static_cast<DWORD>(m_nLogicalSize >> 32);
    return static_cast<DWORD>(m_nLogicalSize);
  }
  return ::GetFileSize(m_hFile, pHigh);
}

BOOL KxFileEx::Read(LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED pOverlapped) {
  if (UsesCache()) return 0;
  DWORD nRead = 0;
  try {
    LARGE_INTEGER zero{}, pos{};
    if (!::SetFilePointerEx(m_hFile, zero, &pos, FILE_CURRENT))
      LogEntry(SeekBeforeReadFailedEntry(0, pos.QuadPart));
    BOOL bOk = ::ReadFile(m_hFile, pBuffer, nToRead, &nRead, pOverlapped);
    if (pRead) *pRead = nRead;
    if (!bOk) LogEntry(ReadFailedEntry(nToRead, nRead));
    // The read moved the file pointer: the next block is written after the
    // bytes read, and a retry rewrites from there.
    uint64_t after = 0;
    if (nRead > 0 && FilePosition(&after)) {
      m_nGoodPos = m_nPhysPos = after;
      if (m_info.nOpMode == 2) {
        m_nLogicalPos = after;
        if (after > m_nLogicalSize) m_nLogicalSize = after;
      }
    }
    return bOk;
  } catch (...) {
    LogEntry(ReadExceptionEntry(nToRead, nRead));
    throw;
  }
}
