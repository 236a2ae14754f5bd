#include "writer/write_cache.h"

#include <new>
#include <stdexcept>
#include <string>

#include "diagnostics/sdk_settings.h"
#include "platform/guid_text.h"
#include "pool/registry.h"

namespace {

constexpr int32_t kTypeData = 1;
constexpr int32_t kTypeSeek = 2;
constexpr size_t kThreadBuffer = 1048576;  // the cache thread's first data buffer
constexpr size_t kGrowSlack = 51200;       // spare bytes when that buffer grows

// The record in front of every queued write or seek.
struct CacheHeader {
  int32_t nType;        // kTypeData or kTypeSeek
  uint32_t dwUserData;  // the write's user data; 0 for a seek
  int32_t nLength;      // bytes of the data record that follows; 24 for a seek
  uint32_t dwHandle;    // the file's handle when the cache started (not used to write)
};
static_assert(sizeof(CacheHeader) == 16, "the header record is 16 bytes");

// The record behind a seek header. Always queued extended; the distance is
// one 64-bit number in either form.
struct CacheSeek {
  int32_t bExtended;  // 1
  int32_t nReserved1;
  uint32_t dwLow;
  int32_t nHigh;
  uint32_t dwMethod;
  int32_t nReserved2;
};
static_assert(sizeof(CacheSeek) == 24, "the seek record is 24 bytes");

// The smallest ring the writer uses: the pool's length field, a header and
// a seek record.
constexpr DWORD kMinRingBytes = kRecordPrefixBytes + sizeof(CacheHeader) + sizeof(CacheSeek);

}  // namespace

CWriteCache::CWriteCache(CClient& client)
    : m_client(client), m_hCacheIdle(CreateEventW(nullptr, TRUE, TRUE, nullptr)) {}

CWriteCache::~CWriteCache() { End(); }

// ---- Set-up and stop ----------------------------------------------------------

int CWriteCache::SetUp(QLCT_FIlEACCESSINFO_ST& info, const CComBSTR& strFileName, const GUID& guid, HANDLE hFile) {
  int result = 1;
  // The writer closes (and so drains) a held file before it opens another,
  // so any old cache has ended already; ending it again is only a safety
  // net that never writes the old records into the new file.
  End();

  qlt::pool::CacheRequest request = qlt::pool::LookUpCacheRequest(strFileName);
  if (request.bFound && request.dwRequest != 0) info.nCacheMode = 3;
  if (info.nCacheMode == 0 || info.nOpMode != 2) return result;

  // Ring sizes that cannot work are refused before anything is made: a
  // ring must hold a header and a seek record, and the pool takes no ring
  // of 2 GiB or more.
  for (DWORD nRing : {info.dwMemoryPoolSize, info.dwWriteCacheSize}) {
    if (nRing < kMinRingBytes || nRing > static_cast<DWORD>(INT32_MAX)) {
      SetLastError(ERROR_INVALID_PARAMETER);
      return 0;
    }
  }
  std::wstring folder = request.cDrive ? std::wstring(1, request.cDrive) + L":\\" : std::wstring(CacheDriveRoot);
  // A disk cache whose drive does not exist is refused before anything is
  // made, with the error Windows gives for a path on a missing drive; the
  // folder calls themselves do not say it alike everywhere (Wine reports a
  // missing file).
  if (info.nCacheMode != 1 && folder.size() >= 2 && folder[1] == L':' &&
      GetDriveTypeW(folder.substr(0, 2).append(L"\\").c_str()) == DRIVE_NO_ROOT_DIR) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return 0;
  }
  folder += GuidText(guid, L"-");
  BSTR bstrFolder = SysAllocString(folder.c_str());
  if (!bstrFolder) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  SysFreeString(info.bstrDiskPoolPath);
  info.bstrDiskPoolPath = bstrFolder;

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
  if (info.nCacheMode != 1) {
    step(m_pPool->SetBufferingMode(1) >= 1);
    try {
      step(m_pPool->SetDiskPoolProps(folder, info.dwDiskPoolSize) > 0);
    } catch (const std::bad_alloc&) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      step(false);
    }
  } else {
    step(m_pPool->SetBufferingMode(0) > 0);
  }
  SetLastError(NO_ERROR);
  step(m_pPool->SetFifoOpMode(info.nOpMode) >= 1);
  step(m_pPool->SetMemoryPoolSize(info.dwMemoryPoolSize) >= 1);
  step(m_pPool->SetWriteCacheSize(info.dwWriteCacheSize) >= 1);
  step(m_pPool->StartFifo() != 0);
  m_nRecordMax = KxDataFifoPool::LargestPayload(info.dwMemoryPoolSize, info.dwWriteCacheSize);
  m_nFileTag = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(hFile));

  if (result != 0) {
    ResetEvent(m_hCacheIdle.Get());
    m_hCacheThread.Reset(CreateThread(nullptr, 0, &CWriteCache::ThreadMain, this, 0, nullptr));
    if (!m_hCacheThread) {
      // No thread will set the event: set it here so no stop waits for ever.
      SetEvent(m_hCacheIdle.Get());
      step(false);
    }
  }
  if (result == 0) {
    // A failed cache ends here, and so does its folder.
    End();
    ::RemoveDirectoryW(info.bstrDiskPoolPath);
    SetLastError(err);
  }
  return result;
}

void CWriteCache::Stop() {
  if (m_hCacheThread) {
    WaitForSingleObject(m_hCacheThread.Get(), INFINITE);
    m_hCacheThread.Reset();  // the thread has ended: this joins it
  }
  WaitForSingleObject(m_hCacheIdle.Get(), INFINITE);
  if (m_pPool) m_pPool->StopFifo();
}

void CWriteCache::Abort() {
  if (m_pPool) m_pPool->StopFifo();  // a waiting cache thread gets the end at once
  Stop();
}

void CWriteCache::Drain() {
  if (!m_pPool) return;
  m_pPool->WriteBuffer(nullptr, 0);
  Stop();
}

void CWriteCache::End() {
  if (!m_pPool) return;
  Abort();
  delete m_pPool;
  m_pPool = nullptr;
}

void CWriteCache::ResetFailure() {
  m_bCacheFailed.store(false, std::memory_order_relaxed);
  m_dwCacheError = 0;
}

// ---- Queuing (host thread) -------------------------------------------------------

BOOL CWriteCache::Queue(const void* pBuffer, int nLength) {
  if (!m_pPool) return 0;
  if (nLength < 1) return 1;
  return m_pPool->WriteBuffer(pBuffer, nLength);
}

bool CWriteCache::QueueWrite(const BYTE* pData, DWORD nLength, DWORD dwUserData) {
  if (!m_pPool || m_nRecordMax < static_cast<int>(sizeof(CacheSeek))) return false;
  // A write longer than one record goes as several; the user data rides on
  // the last, so it is recorded once all the bytes are in the file.
  DWORD nLeft = nLength;
  do {
    DWORD nPart = nLeft > static_cast<DWORD>(m_nRecordMax) ? static_cast<DWORD>(m_nRecordMax) : nLeft;
    nLeft -= nPart;
    CacheHeader header{kTypeData, nLeft == 0 ? dwUserData : 0, static_cast<int32_t>(nPart), m_nFileTag};
    // The data goes only behind an accepted header, so the thread never
    // takes one record for another.
    if (!Queue(&header, sizeof header) || !Queue(pData, static_cast<int>(nPart))) return false;
    pData += nPart;
  } while (nLeft > 0);
  return true;
}

bool CWriteCache::QueueSeek(uint64_t nTarget) {
  LARGE_INTEGER distance{};
  distance.QuadPart = static_cast<LONGLONG>(nTarget);
  CacheHeader header{kTypeSeek, 0, static_cast<int32_t>(sizeof(CacheSeek)), m_nFileTag};
  CacheSeek seek{1, 0, distance.u.LowPart, distance.u.HighPart, FILE_BEGIN, 0};
  return Queue(&header, sizeof header) && Queue(&seek, sizeof seek);
}

// ---- The cache thread ------------------------------------------------------------

DWORD WINAPI CWriteCache::ThreadMain(LPVOID pCache) { return static_cast<CWriteCache*>(pCache)->Run(); }

void CWriteCache::NoteFailure(DWORD dwError) {
  if (m_bCacheFailed.load(std::memory_order_relaxed)) return;
  m_dwCacheError = dwError != NO_ERROR ? dwError : ERROR_WRITE_FAULT;
  m_bCacheFailed.store(true, std::memory_order_release);
}

DWORD CWriteCache::Run() {
  if (!m_pPool) {
    SetEvent(m_hCacheIdle.Get());
    return 0;
  }
  bool bEnded = false;                    // the end of the data was reached
  DWORD dwEndError = ERROR_INVALID_DATA;  // why the thread ended early
  std::vector<BYTE> buffer;
  try {
    buffer.resize(kThreadBuffer);
    for (;;) {
      CacheHeader header{};
      LONG nLength = 0;
      // Records come whole and in order: a header, then its data or seek.
      if (!m_pPool->ReadBuffer(&header, nLength)) break;
      if (nLength == -1) {
        bEnded = true;
        break;
      }
      if (nLength != static_cast<int>(sizeof header)) break;
      if (header.nType == kTypeData) {
        if (header.nLength > 0) HandleDataRecord(header.nLength, buffer);
        if (header.dwUserData != 0) m_client.CacheUserData(header.dwUserData);
      } else if (header.nType == kTypeSeek) {
        CacheSeek seek{};
        if (!m_pPool->ReadBuffer(&seek, nLength) || nLength != static_cast<int>(sizeof seek)) break;
        // The writer seeks its current handle: a retry on this thread may
        // have replaced the one the record was queued with.
        LARGE_INTEGER distance{};
        distance.u.LowPart = seek.dwLow;
        distance.u.HighPart = seek.nHigh;
        // Later writes would land in the wrong place: the close reports it.
        if (!m_client.CacheSeek(distance, seek.dwMethod)) NoteFailure(GetLastError());
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
    NoteFailure(dwEndError);
    try {
      for (;;) {
        LONG nRest = 0;
        if (!m_pPool->ReadBufferInPlace(nRest, [](const BYTE*, DWORD, const BYTE*, DWORD) {}) || nRest < 0) break;
      }
    } catch (...) {
    }
  }
  // The status record is the host thread's to refresh (it does at close):
  // its fields are the host's, so this thread does not read them.
  SetEvent(m_hCacheIdle.Get());
  return 1;
}

void CWriteCache::HandleDataRecord(int32_t nHeaderLength, std::vector<BYTE>& buffer) {
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
        bWritten = m_client.CacheBlockWrite(p1, n1) == nAll;
      } else if (bGrown && nAll <= buffer.size()) {
        CRingStream::CopyPieces(buffer.data(), p1, n1, p2, n2);
        bWritten = m_client.CacheBlockWrite(buffer.data(), nAll) == nAll;
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
      m_client.CacheLogEntry(WriteFailedEntry(nHeaderLength, 0));
    }
    NoteFailure(err);
  }
}
