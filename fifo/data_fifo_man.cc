// FIFO manager: memory ring first, overflow files in mode 1, and the mover
// thread that brings files back in order.
#include "fifo/data_fifo_man.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <new>

#include "fifo/producer_guard.h"
#include "platform/contain.h"

namespace {

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

}  // namespace

CDataFifoMan::CDataFifoMan() {
  InitializeCriticalSection(&m_csWriteFile);
  InitializeCriticalSection(&m_csRead);
  InitializeCriticalSection(&m_csFiles);
}

CDataFifoMan::~CDataFifoMan() {
  StopFifo();
  delete[] m_pMoveBuffer;
  DeleteCriticalSection(&m_csFiles);
  DeleteCriticalSection(&m_csRead);
  DeleteCriticalSection(&m_csWriteFile);
}

BOOL CDataFifoMan::SetBufferingMode(LONG nMode) {
  if (nMode != 0 && nMode != 1) return FALSE;
  if (nMode == 1 && m_bRunning.load()) {
    if (GetRingCapacity() <= static_cast<DWORD>(kMoveThreshold)) return FALSE;
    // The mover must run before the producer can spill.
    if (!m_mover.IsRunning() && !QltContain<BOOL>(FALSE, [this] { return StartMover(); })) return FALSE;
  }
  m_nBufferingMode.store(nMode, std::memory_order_relaxed);
  return TRUE;
}

BOOL CDataFifoMan::SetMemoryPoolSize(DWORD nBytes) {
  if (nBytes > CRingStream::kMaxCapacity) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  m_nMemoryPoolSize = nBytes;
  return TRUE;
}

BOOL CDataFifoMan::SetDiskPath(const std::wstring& strFolder) {
  return QltContain<BOOL>(FALSE, [&] { return SetDiskPathOrThrow(strFolder); });
}

BOOL CDataFifoMan::SetDiskPathOrThrow(const std::wstring& strFolder) {
  if (strFolder.empty()) return FALSE;
  for (size_t i = 1; i < strFolder.size(); ++i)
    if (IsSeparator(strFolder[i])) {
      std::wstring strPrefix = strFolder.substr(0, i + 1);
      if (_waccess(strPrefix.c_str(), 0) != 0) CreateDirectoryW(strPrefix.c_str(), nullptr);
    }
  if (_waccess(strFolder.c_str(), 0) != 0) CreateDirectoryW(strFolder.c_str(), nullptr);
  if (_waccess(strFolder.c_str(), 0) != 0) return FALSE;
  CAutoLock lock(&m_csFiles);
  m_strDiskPath = strFolder;
  while (m_strDiskPath.size() > 1 && IsSeparator(m_strDiskPath.back())) m_strDiskPath.pop_back();
  return TRUE;
}

BOOL CDataFifoMan::StartFifo() {
  try {
    return StartRun();
  } catch (const std::bad_alloc&) {
    StopFifo();  // whatever was made so far
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
}

BOOL CDataFifoMan::StartRun() {
  StopFifo();
  m_bEndOfData.store(false);
  m_nPendingMoves.store(0);
  m_nDiskState.store(0);
  if (m_nMemoryPoolSize < kRecordPrefixBytes) return FALSE;  // not even a record's length would fit
  if (m_nBufferingMode.load() == 1 && m_nMemoryPoolSize <= static_cast<DWORD>(kMoveThreshold)) return FALSE;

  m_pMemoryPool = new CRingStream(L"WriteMemory");  // bad_alloc: see StartFifo
  if (!m_pMemoryPool || m_pMemoryPool->InitStream(m_nMemoryPoolSize) != S_OK) {
    StopFifo();  // frees the half-made ring
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
  m_nRingCapacity.store(m_nMemoryPoolSize, std::memory_order_release);
  m_bRunning.store(true);  // publishes the ring to the producer and consumer
  if (m_nBufferingMode.load() == 1 && !StartMover()) {
    DWORD nError = GetLastError();
    StopFifo();
    SetLastError(nError);
    return FALSE;
  }
  return TRUE;
}

BOOL CDataFifoMan::StartMover() {
  {
    std::wstring strFolder;
    {
      CAutoLock lock(&m_csFiles);
      strFolder = m_strDiskPath;
    }
    CreateDirectoryW(strFolder.c_str(), nullptr);  // best effort: the default folder may be missing
  }
  if (!m_hWorkEvent) m_hWorkEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (!m_hWorkEvent) return FALSE;
  return m_mover.Start([this] { MoverLoop(); });
}

void CDataFifoMan::StopFifo() {
  m_bRunning.store(false);
  // One signal releases everyone inside the ring, now and later: the
  // consumer gets what is buffered and then the end, writers (the producer
  // and the mover) return at once.
  if (m_pMemoryPool) m_pMemoryPool->Close();
  m_mover.RequestStop();  // releases an idle mover
  m_mover.Join();
  // A producer still inside WriteBuffer returns without waiting on anything
  // now (the ring is closed, the mover gone); let it leave.
  CProducerGuard::WaitUntilNoneInside(m_nProducersInside);
  {
    CAutoLock lockRead(&m_csRead);  // the released consumer has left the ring
    m_nRingCapacity.store(0, std::memory_order_release);
    if (m_pMemoryPool) {
      m_pMemoryPool->UninitStream();
      delete m_pMemoryPool;
      m_pMemoryPool = nullptr;
    }
  }
  if (m_hWorkEvent) CloseHandle(m_hWorkEvent);
  m_hWorkEvent = nullptr;
  CAutoLock lockWrite(&m_csWriteFile);
  CAutoLock lockFiles(&m_csFiles);
  for (CFifoDiskFile* pFile : m_arrDiskFiles) delete pFile;  // closes and deletes
  m_arrDiskFiles.clear();
  m_pWriteFile = nullptr;
  m_pMoveFile = nullptr;
  m_nPendingMoves.store(0);
  m_nDiskState.store(0);
}

bool CDataFifoMan::WriteRecordToRing(const void* pPayload, LONG nLen, const void* pRest, LONG nRest) {
  LONG nTotal = nLen + nRest;
  LONG nHead = kRecordPrefixBytes;
  m_pMemoryPool->WriteData(&nTotal, nHead);  // native little-endian length
  if (!m_bRunning.load() || nHead != kRecordPrefixBytes) return false;
  LONG nBody = nLen;
  m_pMemoryPool->WriteData(pPayload, nBody);
  if (!m_bRunning.load() || nBody != nLen) return false;
  if (nRest == 0) return true;
  nBody = nRest;
  m_pMemoryPool->WriteData(pRest, nBody);
  return m_bRunning.load() && nBody == nRest;
}

BOOL CDataFifoMan::WriteBuffer(const void* pPayload, LONG nLen) { return Write(pPayload, nLen, nullptr, 0); }

BOOL CDataFifoMan::WriteBufferPieces(const void* pPayload, LONG nLen, const void* pRest, LONG nRest) {
  if (!pPayload || nRest < 0 || (nRest > 0 && !pRest) || nLen > LONG_MAX - nRest) return FALSE;
  return Write(pPayload, nLen, pRest, nRest);
}

BOOL CDataFifoMan::Write(const void* pPayload, LONG nLen, const void* pRest, LONG nRest) {
  if (pPayload && nLen < 0) return FALSE;
  // Announce this producer before testing m_bRunning (see its comment).
  CProducerGuard inside(m_nProducersInside);
  if (!m_bRunning.load()) return FALSE;

  if (!pPayload) {
    CAutoLock lock(&m_csFiles);
    m_bEndOfData.store(true);
    MarkEndIfDrainedLocked();
    return TRUE;
  }
  if (static_cast<DWORD>(nLen) + static_cast<DWORD>(nRest) > GetRingCapacity()) return FALSE;  // could never fit

  if (m_nBufferingMode.load(std::memory_order_relaxed) == 0 && m_nDiskState.load(std::memory_order_acquire) == 0) {
    WriteRecordToRing(pPayload, nLen, pRest, nRest);
    return TRUE;
  }
  if (nRest > 0) return FALSE;  // the disk paths take one piece
  // Out of memory here means a new overflow file could not be set up.
  return QltContain<BOOL>(FALSE, [&] {
    if (m_nDiskState.load(std::memory_order_acquire) == 0) {
      WriteMemoryFirst(pPayload, nLen);
    } else {
      // Records already on disk keep their place: newer ones follow them
      // there even when the mode has meanwhile turned to 0.
      WriteToDisk(pPayload, nLen);
    }
    return TRUE;
  });
}

BOOL CDataFifoMan::TryWriteBuffer(const void* pPayload, LONG nLen) {
  if (!pPayload || nLen < 0) return FALSE;
  CProducerGuard inside(m_nProducersInside);
  // The caller is the ring's only writer now, so the free space can only
  // grow between the test and the write: the write cannot wait.
  if (RecordRoomNow() < nLen) return FALSE;
  return WriteRecordToRing(pPayload, nLen) ? TRUE : FALSE;
}

LONG CDataFifoMan::RecordRoomNow() {
  if (!m_bRunning.load() || m_nBufferingMode.load(std::memory_order_relaxed) != 0 ||
      m_nDiskState.load(std::memory_order_acquire) != 0)
    return -1;
  return m_pMemoryPool->FreeSpace() - kRecordPrefixBytes;
}

void CDataFifoMan::WriteMemoryFirst(const void* pPayload, LONG nLen) {
  // Only this producer adds data while the disk state is 0 (no file exists,
  // so the mover is idle), so the free space can only grow after the test.
  if (m_pMemoryPool->FreeSpace() - kRecordPrefixBytes > nLen) {  // no sum: nLen may be near the signed limit
    WriteRecordToRing(pPayload, nLen);
    return;
  }
  {
    CAutoLock lock(&m_csFiles);
    m_nDiskState.store(1, std::memory_order_release);
  }
  WriteToDisk(pPayload, nLen);
}

void CDataFifoMan::WriteToDisk(const void* pPayload, LONG nLen) {
  CAutoLock lock(&m_csWriteFile);
  CFifoDiskFile* pFile = nullptr;
  if (!m_pWriteFile) {
    pFile = OpenNewDiskFile();
  } else if (m_pWriteFile->HasRoom(nLen)) {
    m_pWriteFile->WriteRecord(pPayload, nLen);  // a failure stays here: the producer goes on
    CAutoLock lockFiles(&m_csFiles);
    RequestMoveLocked();  // as below
    return;
  } else {
    m_pWriteFile->CloseFile();
    pFile = OpenNewDiskFile();
  }
  if (pFile) {
    pFile->WriteRecord(pPayload, nLen);
    // The consumer may already wait on an empty ring, having found no file
    // when it looked: ask for the move here, or nobody would.
    CAutoLock lockFiles(&m_csFiles);
    RequestMoveLocked();
    return;
  }
  // The disk state went back to 0 meanwhile: try memory again (which turns
  // the state to 1 and comes back here when memory is still too full).
  WriteMemoryFirst(pPayload, nLen);
}

CFifoDiskFile* CDataFifoMan::OpenNewDiskFile() {
  CAutoLock lock(&m_csFiles);
  if (m_nDiskState.load(std::memory_order_relaxed) == 0) {
    m_pWriteFile = nullptr;
    return nullptr;
  }
  std::unique_ptr<CFifoDiskFile> pNew(new CFifoDiskFile);
  pNew->SetFolder(m_strDiskPath);
  m_arrDiskFiles.push_back(pNew.get());
  CFifoDiskFile* pFile = pNew.release();
  m_pWriteFile = pFile;
  pFile->CreateNewFile();  // a failure leaves an empty entry the mover drops
  return pFile;
}

BOOL CDataFifoMan::ReadBuffer(void* pDst, LONG& nLen) {
  if (!pDst) {
    nLen = -1;
    return FALSE;
  }
  return ReadRecord(nLen, &CRingStream::CopyPieces, pDst);
}

BOOL CDataFifoMan::ReadRecord(LONG& nLen, CRingStream::PieceVisitor pVisit, void* pContext) {
  CAutoLock lockRead(&m_csRead);
  if (!m_bRunning.load()) {
    nLen = -1;
    return TRUE;
  }
  LONG nResult;
  {
    CAutoLock lockFiles(&m_csFiles);
    if (!m_arrDiskFiles.empty()) {
      RequestMoveLocked();
    } else if (m_bEndOfData.load() && !m_pMemoryPool->HasData()) {
      nLen = -1;
      return TRUE;
    } else {
      LeaveDiskStateIfDrainedLocked();
    }
  }
  LONG nHead = kRecordPrefixBytes;
  LONG nStored = 0;
  m_pMemoryPool->ReadData(&nStored, nHead);
  if (!m_bRunning.load() || nHead != kRecordPrefixBytes) {
    nResult = -1;
  } else {
    nResult = nStored;
    if (nStored > 0) {
      // The payload is shown only when it is there whole: a stop can cut a
      // record short, and half a record must not reach the consumer.
      const DWORD nWant = static_cast<DWORD>(nStored);
      LONG nBody = nStored;
      m_pMemoryPool->ReadInPlace(nBody, [=](const BYTE* p1, DWORD n1, const BYTE* p2, DWORD n2) {
        if (n1 + n2 == nWant) pVisit(pContext, p1, n1, p2, n2);
      });
      if (!m_bRunning.load() || nBody != nStored) nResult = -1;  // stopped mid-record
    }
  }
  nLen = nResult < -1 ? -2 : nResult;
  return TRUE;
}

void CDataFifoMan::RequestMoveLocked() {
  if (m_arrDiskFiles.empty() || m_nPendingMoves.load() != 0) return;
  if (m_pMemoryPool->FreeSpace() <= kMoveThreshold) return;
  m_pMoveFile = m_arrDiskFiles.front();
  m_nMoveIndex = 0;
  m_nPendingMoves.fetch_add(1);
  SetEvent(m_hWorkEvent);
}

bool CDataFifoMan::IsConsumerWaiting() {
  // m_csRead is held by a consumer inside ReadBuffer: peek at the ring
  // through the state published with m_bRunning instead.
  if (!m_bRunning.load()) return false;
  CRingStream* pRing = m_pMemoryPool;
  return pRing && pRing->IsReaderWaiting();
}

void CDataFifoMan::LeaveDiskStateIfDrainedLocked() {
  if (m_nDiskState.load(std::memory_order_relaxed) != 0 && m_arrDiskFiles.empty() && m_nPendingMoves.load() == 0 &&
      m_pMemoryPool->FreeSpace() >= static_cast<LONG>(m_nLowWater))
    m_nDiskState.store(0, std::memory_order_release);
}

void CDataFifoMan::MarkEndIfDrainedLocked() {
  // Data still in the ring is read before the end mark takes effect, so the
  // mark may be given as soon as nothing remains on disk.
  if (m_bEndOfData.load() && m_arrDiskFiles.empty()) m_pMemoryPool->SetEndOfStream();
}

void CDataFifoMan::MoverLoop() {
  const HANDLE hWait[2] = {m_mover.StopEvent(), m_hWorkEvent};
  for (;;) {
    if (WaitForMultipleObjects(2, hWait, FALSE, INFINITE) != WAIT_OBJECT_0 + 1 || m_mover.StopRequested() ||
        !m_bRunning.load())
      break;
    CFifoDiskFile* pFile;
    {
      CAutoLock lock(&m_csFiles);
      pFile = m_pMoveFile;
    }
    bool bMoved = false;
    {
      CAutoLock lockWrite(&m_csWriteFile);
      if (pFile && pFile == m_pWriteFile) {
        // The file still receives records: keep the producer off it while
        // it moves; the producer's next disk record opens a new file.
        m_pWriteFile = nullptr;
        MoveFileToMemory(pFile);
        bMoved = true;
      }
    }
    if (pFile && !bMoved) MoveFileToMemory(pFile);

    CAutoLock lock(&m_csFiles);
    ResetEvent(m_hWorkEvent);
    m_pMoveFile = nullptr;
    m_nPendingMoves.fetch_sub(1);
    if (!m_bRunning.load()) break;
    // The consumer may already have drained this file's records and be
    // waiting for the next length: it would not ask again, so ask here.
    RequestMoveLocked();
    LeaveDiskStateIfDrainedLocked();
  }
}

void CDataFifoMan::MoveFileToMemory(CFifoDiskFile* pFile) {
  pFile->CloseFile();
  for (;;) {
    LONG nLen = 0;
    if (!pFile->ReadRecord(nullptr, nLen) || nLen < 0) break;
    if (nLen > 0 && static_cast<DWORD>(nLen) > m_nMoveBufferSize) {
      const DWORD nSize = std::max<DWORD>(static_cast<DWORD>(nLen), kMoveBufferSize);
      BYTE* pBigger = new (std::nothrow) BYTE[nSize];
      if (!pBigger) break;
      delete[] m_pMoveBuffer;
      m_pMoveBuffer = pBigger;
      m_nMoveBufferSize = nSize;
    }
    LONG nRead = nLen;
    if (nLen > 0 && (!pFile->ReadRecord(m_pMoveBuffer, nRead) || nRead != nLen)) break;  // damaged file
    if (!WriteRecordToRing(m_pMoveBuffer, nLen)) return;  // stopped: StopFifo deletes the files
  }
  pFile->CloseFile();
  CAutoLock lock(&m_csFiles);
  for (auto it = m_arrDiskFiles.begin(); it != m_arrDiskFiles.end(); ++it)
    if (*it == pFile) {
      m_arrDiskFiles.erase(it);
      break;
    }
  delete pFile;  // deletes the file from disk
  MarkEndIfDrainedLocked();
}
