// The writer's write cache: queued writes and seeks drained by a cache
// thread, and the writer's entry in the registry of files being written.
#include <cstdio>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "diagnostics/error_log.h"
#include "diagnostics/sdk_settings.h"
#include "platform/platform.h"
#include "writer/kx_file_ex.h"

namespace {

constexpr int32_t kTypeData = 1;
constexpr int32_t kTypeSeek = 2;
constexpr size_t kThreadBuffer = 1048576;  // the cache thread's first data buffer
constexpr size_t kGrowSlack = 51200;       // spare bytes when that buffer grows
constexpr int kRecordLengthBytes = 4;      // the pool's own length field per record
// The smallest ring the writer uses: its pool length field, a header and a
// seek record.
constexpr DWORD kMinRingBytes = kRecordLengthBytes + 16 + 24;

// The record in front of every queued write or seek.
struct CacheHeader {
  int32_t nType;        // kTypeData or kTypeSeek
  uint32_t dwUserData;  // the write's user data; 0 for a seek
  int32_t nLength;      // bytes of the data record that follows; 24 for a seek
  uint32_t dwHandle;    // the file's handle when the cache started (not used to write)
};
static_assert(sizeof(CacheHeader) == 16, "the header record is 16 bytes");

struct CacheSeek {
  int32_t bExtended;  // 1: 64-bit seek; 0: 32-bit seek
  int32_t nReserved1;
  uint32_t dwLow;
  int32_t nHigh;
  uint32_t dwMethod;
  int32_t nReserved2;
};
static_assert(sizeof(CacheSeek) == 24, "the seek record is 24 bytes");

uint32_t LittleEndian32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

// "%08x-%04x-%04x-%08x-%08x": Data1, Data2, Data3, then Data4's two halves
// each read as a little-endian 32-bit number.
std::wstring GuidText(const GUID& guid) {
  wchar_t text[48] = {};
  std::swprintf(text, 48, L"%08x-%04x-%04x-%08x-%08x", guid.Data1, static_cast<unsigned>(guid.Data2),
                static_cast<unsigned>(guid.Data3), LittleEndian32(guid.Data4), LittleEndian32(guid.Data4 + 4));
  return text;
}

}  // namespace

// ---- Set-up and stop ----------------------------------------------------------

int KxFileEx::SetUpCache() {
  int result = 1;
  // After a close the old cache has ended already. A file opened without
  // closing the previous one ends the old cache without draining it, since
  // its records belong to the previous file.
  CacheAbort();
  delete m_pPool;
  m_pPool = nullptr;

  qlt::pool::CacheRequest request = qlt::pool::LookUpCacheRequest(m_bstrFileName);
  if (request.bFound && request.dwRequest != 0) m_info.nCacheMode = 3;
  if (m_info.nCacheMode == 0 || m_info.nOpMode != 2) return result;

  // Ring sizes that cannot work are refused before anything is made: a
  // ring must hold a header and a seek record, and the pool takes no ring
  // of 2 GiB or more.
  for (DWORD nRing : {m_info.dwMemoryPoolSize, m_info.dwWriteCacheSize}) {
    if (nRing < kMinRingBytes || nRing > static_cast<DWORD>(INT32_MAX)) {
      SetLastError(ERROR_INVALID_PARAMETER);
      return 0;
    }
  }
  std::wstring folder = request.cDrive ? std::wstring(1, request.cDrive) + L":\\" : std::wstring(CacheDriveRoot);
  folder += GuidText(m_guid);
  BSTR bstrFolder = SysAllocString(folder.c_str());
  if (!bstrFolder) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  SysFreeString(m_info.bstrDiskPoolPath);
  m_info.bstrDiskPoolPath = bstrFolder;

  m_pPool = new (std::nothrow) KxDataFifoPool;
  if (!m_pPool) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  // Every step runs even after one has failed; any failure fails the set-up,
  // and the first failure's error is the one reported.
  DWORD err = NO_ERROR;
  auto step = [&](bool bOk) {
    if (bOk) return;
    if (result != 0) err = GetLastError() != NO_ERROR ? GetLastError() : ERROR_INVALID_PARAMETER;
    result = 0;
  };
  SetLastError(NO_ERROR);
  if (m_info.nCacheMode != 1) {
    step(m_pPool->SetBufferingMode(1) >= 1);
    try {
      step(m_pPool->SetDiskPoolProps(folder, m_info.dwDiskPoolSize) > 0);
    } catch (const std::bad_alloc&) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      step(false);
    }
  } else {
    step(m_pPool->SetBufferingMode(0) > 0);
  }
  SetLastError(NO_ERROR);
  step(m_pPool->SetFifoOpMode(m_info.nOpMode) >= 1);
  step(m_pPool->SetMemoryPoolSize(m_info.dwMemoryPoolSize) >= 1);
  step(m_pPool->SetWriteCacheSize(m_info.dwWriteCacheSize) >= 1);
  step(m_pPool->StartFifo() != 0);
  DWORD nSmaller =
      m_info.dwMemoryPoolSize < m_info.dwWriteCacheSize ? m_info.dwMemoryPoolSize : m_info.dwWriteCacheSize;
  m_nCacheRecordMax = nSmaller > static_cast<DWORD>(INT32_MAX) ? INT32_MAX - kRecordLengthBytes
                                                               : static_cast<int>(nSmaller) - kRecordLengthBytes;
  m_nCacheFileTag = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(m_hFile));

  if (result != 0) {
    ResetEvent(m_hCacheIdle);
    m_hCacheThread = CreateThread(nullptr, 0, &KxFileEx::CacheThreadMain, this, 0, nullptr);
    if (!m_hCacheThread) {
      // No thread will set the event: set it here so no stop waits for ever.
      SetEvent(m_hCacheIdle);
      step(false);
    }
  }
  if (result == 0) {
    // A failed cache ends here, and so does its folder.
    CacheAbort();
    delete m_pPool;
    m_pPool = nullptr;
    ::RemoveDirectoryW(m_info.bstrDiskPoolPath);
    SetLastError(err);
  }
  return result;
}

void KxFileEx::CacheStop() {
  if (m_hCacheThread) {
    WaitForSingleObject(m_hCacheThread, INFINITE);
    ::CloseHandle(m_hCacheThread);  // the thread has ended: this joins it
    m_hCacheThread = nullptr;
  }
  WaitForSingleObject(m_hCacheIdle, INFINITE);
  if (m_pPool) m_pPool->StopFifo();
}

void KxFileEx::CacheAbort() {
  if (m_pPool) m_pPool->StopFifo();  // a waiting cache thread gets the end at once
  CacheStop();
}

// ---- Queuing (host thread) -------------------------------------------------------

BOOL KxFileEx::Queue(const void* pBuffer, int nLength) {
  if (!m_pPool) return 0;
  if (nLength < 1) return 1;
  return m_pPool->WriteBuffer(pBuffer, nLength);
}

bool KxFileEx::QueueWrite(const BYTE* pData, DWORD nLength, DWORD dwUserData) {
  if (!m_pPool || m_nCacheRecordMax < static_cast<int>(sizeof(CacheSeek))) return false;
  // A write longer than one record goes as several; the user data rides on
  // the last, so it is recorded once all the bytes are in the file.
  DWORD nLeft = nLength;
  do {
    DWORD nPart = nLeft > static_cast<DWORD>(m_nCacheRecordMax) ? static_cast<DWORD>(m_nCacheRecordMax) : nLeft;
    nLeft -= nPart;
    CacheHeader header{kTypeData, nLeft == 0 ? dwUserData : 0, static_cast<int32_t>(nPart), m_nCacheFileTag};
    // The data goes only behind an accepted header, so the thread never
    // takes one record for another.
    if (!Queue(&header, sizeof header) || !Queue(pData, static_cast<int>(nPart))) return false;
    pData += nPart;
  } while (nLeft > 0);
  return true;
}

bool KxFileEx::QueueSeek(LARGE_INTEGER liDistance, DWORD dwMoveMethod) {
  CacheHeader header{kTypeSeek, 0, static_cast<int32_t>(sizeof(CacheSeek)), m_nCacheFileTag};
  CacheSeek seek{1, 0, liDistance.u.LowPart, liDistance.u.HighPart, dwMoveMethod, 0};
  return Queue(&header, sizeof header) && Queue(&seek, sizeof seek);
}

// ---- The cache thread ------------------------------------------------------------

DWORD WINAPI KxFileEx::CacheThreadMain(LPVOID pWriter) { return static_cast<KxFileEx*>(pWriter)->RunCacheThread(); }

DWORD KxFileEx::RunCacheThread() {
  if (!m_pPool) {
    SetEvent(m_hCacheIdle);
    return 0;
  }
  bool bEnded = false;                    // the end of the data was reached
  DWORD dwEndError = ERROR_INVALID_DATA;  // why the thread ended early
  std::vector<BYTE> buffer;
  try {
    buffer.resize(kThreadBuffer);
    for (;;) {
      CacheHeader header{};
      int nLength = 0;
      // Records come whole and in order: a header, then its data or seek.
      if (!m_pPool->ReadBuffer(&header, nLength)) break;
      if (nLength == -1) {
        bEnded = true;
        break;
      }
      if (nLength != static_cast<int>(sizeof header)) break;
      if (header.nType == kTypeData) {
        if (header.nLength > 0) HandleDataRecord(header.nLength, buffer);
        if (header.dwUserData != 0) {
          CAutoLock lock(&m_csUserData);
          m_userData.Add(header.dwUserData);
        }
      } else if (header.nType == kTypeSeek) {
        CacheSeek seek{};
        if (!m_pPool->ReadBuffer(&seek, nLength) || nLength != static_cast<int>(sizeof seek)) break;
        // The writer's current handle: a retry on this thread may have
        // replaced the one the record was queued with.
        LARGE_INTEGER distance{}, newPos{};
        distance.u.LowPart = seek.dwLow;
        distance.u.HighPart = seek.nHigh;
        BOOL bOk;
        if (seek.bExtended) {
          bOk = ::SetFilePointerEx(m_hFile, distance, &newPos, seek.dwMethod);
        } else {
          LONG nHigh = seek.nHigh;
          DWORD nLow = ::SetFilePointer(m_hFile, static_cast<LONG>(seek.dwLow), &nHigh, seek.dwMethod);
          bOk = !(nLow == INVALID_SET_FILE_POINTER && GetLastError() != NO_ERROR);
          newPos.u.LowPart = nLow;
          newPos.u.HighPart = nHigh;
        }
        if (bOk) {
          m_nGoodPos = m_nPhysPos = static_cast<uint64_t>(newPos.QuadPart);
          if (m_nPhysPos > m_nExtent) m_nExtent = m_nPhysPos;
        } else {
          // Later writes would land in the wrong place: the close reports it.
          NoteCacheFailure(GetLastError());
          LogEntry(SeekFailedEntry(distance.QuadPart, newPos.QuadPart));
        }
      }
    }
  } catch (const std::bad_alloc&) {
    dwEndError = ERROR_NOT_ENOUGH_MEMORY;
  } catch (...) {
  }
  if (!bEnded) {
    // The thread ends before the data did (a broken record, or out of
    // memory for its buffer): the rest of the queue can no longer be written
    // in order. Later writes fail, the close reports the loss, and the queue
    // is emptied here so a host waiting for room in the pool goes on.
    NoteCacheFailure(dwEndError);
    try {
      for (;;) {
        LONG nRest = 0;
        if (!m_pPool->ReadBufferInPlace(nRest, [](const BYTE*, DWORD, const BYTE*, DWORD) {}) || nRest < 0) break;
      }
    } catch (...) {
    }
  }
  RefreshStatus();
  SetEvent(m_hCacheIdle);
  return 1;
}

void KxFileEx::HandleDataRecord(int32_t nHeaderLength, std::vector<BYTE>& buffer) {
  bool bGrown = true;
  if (static_cast<size_t>(nHeaderLength) > buffer.size()) {
    try {
      buffer.resize(static_cast<size_t>(nHeaderLength) + kGrowSlack);
    } catch (...) {
      bGrown = false;
    }
  }
  LONG nLength = 0;
  bool bWritten = false;
  DWORD err = NO_ERROR;
  // The data is written from where it lies in the pool; only a record that
  // wraps round the pool's end is put together in the buffer first, so each
  // record is still one block write. A record that cannot be written (no
  // buffer for it, or an exception in the block write) is still taken out
  // of the pool, so the records after it keep their order.
  m_pPool->ReadBufferInPlace(nLength, [&](const BYTE* p1, DWORD n1, const BYTE* p2, DWORD n2) {
    try {
      DWORD nAll = n1 + n2;
      if (n2 == 0) {
        bWritten = BlockWrite(m_hFile, p1, n1) == nAll;
      } else if (bGrown && nAll <= buffer.size()) {
        CRingStream::CopyPieces(buffer.data(), p1, n1, p2, n2);
        bWritten = BlockWrite(m_hFile, buffer.data(), nAll) == nAll;
      } else {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      }
      if (!bWritten) err = GetLastError();
    } catch (...) {
      err = ERROR_NOT_ENOUGH_MEMORY;
    }
  });
  if (nLength != nHeaderLength) {
    // The data record is missing: what follows cannot be trusted.
    throw std::runtime_error("cache record lost");
  }
  if (!bWritten) {
    if (err == ERROR_NOT_ENOUGH_MEMORY && SdkSettings.LogFileOn != 0) {
      SetLastError(err);
      LogEntry(WriteFailedEntry(nHeaderLength, 0));
    }
    NoteCacheFailure(err);
  }
}
