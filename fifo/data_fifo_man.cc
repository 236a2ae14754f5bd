// FIFO manager: memory ring first, overflow files in mode 1, and the mover
// thread that brings files back in order.
#include "fifo/data_fifo_man.h"

#include <new>

namespace {

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

}  // namespace

CDataFifoMan::CDataFifoMan() {
  InitializeCriticalSection(&m_csWriteFile);
  InitializeCriticalSection(&m_csRead);
  InitializeCriticalSection(&m_csFiles);
  CreateDirectoryW(m_strDiskPath.c_str(), nullptr);  // best effort: the default folder
  m_pMoveBuffer = new (std::nothrow) BYTE[m_nMoveBufferSize];
  if (!m_pMoveBuffer) m_nMoveBufferSize = 0;
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
  if (nMode == 1 && m_bRunning.load() && GetRingCapacity() <= static_cast<DWORD>(kMoveThreshold)) return FALSE;
  m_nBufferingMode.store(nMode, std::memory_order_relaxed);
  return TRUE;
}

BOOL CDataFifoMan::SetMemoryPoolSize(DWORD nBytes) {
  m_nMemoryPoolSize = nBytes;
  return TRUE;
}

BOOL CDataFifoMan::SetDiskPath(const std::wstring& strFolder) {
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
  StopFifo();
  m_bEndOfData.store(false);
  m_nPendingMoves.store(0);
  m_nDiskState.store(0);
  if (m_nMemoryPoolSize < 4) return FALSE;  // not even a record's length would fit
  if (m_nBufferingMode.load() == 1 && m_nMemoryPoolSize <= static_cast<DWORD>(kMoveThreshold)) return FALSE;

  m_pMemoryPool = new (std::nothrow) CRingStream(L"WriteMemory");
  if (!m_pMemoryPool || m_pMemoryPool->InitStream(m_nMemoryPoolSize) != S_OK) {
    StopFifo();  // frees the half-made ring
    return FALSE;
  }
  m_nRingCapacity.store(m_nMemoryPoolSize, std::memory_order_release);

  m_hExitEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  m_hWorkEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  m_bRunning.store(true);  // publishes the ring to the producer and consumer
  m_hThread = CreateThread(nullptr, 0, MoverThreadProc, this, 0, nullptr);
  if (!m_hThread) {
    StopFifo();
    return FALSE;
  }
  SetThreadPriority(m_hThread, THREAD_PRIORITY_NORMAL);
  return TRUE;
}

void CDataFifoMan::ReleaseRingWriters() {
  // A writer waiting for space takes one StopWriting signal and writes no
  // further record once it sees m_bRunning clear, so repeating the signal
  // until every writer has left releases them all.
  if (m_pMemoryPool) m_pMemoryPool->StopWriting();
}

void CDataFifoMan::StopFifo() {
  m_bRunning.store(false);
  if (m_pMemoryPool) m_pMemoryPool->SetEndOfStream();  // releases a waiting consumer
  if (m_hWorkEvent) SetEvent(m_hWorkEvent);            // releases an idle mover
  if (m_hThread) {
    // The mover may be waiting for room in the ring: keep releasing it until
    // it has ended. It never waits on anything else without a bound.
    for (;;) {
      ReleaseRingWriters();
      if (WaitForSingleObject(m_hThread, 50) != WAIT_TIMEOUT) break;
    }
    CloseHandle(m_hThread);  // joins the finished thread
    m_hThread = nullptr;
  }
  while (m_nProducersInside.load() > 0) {  // a producer still inside WriteBuffer
    ReleaseRingWriters();
    Sleep(1);
  }
  {
    CAutoLock lockRead(&m_csRead);  // the released consumer has left the ring
    m_nRingCapacity.store(0, std::memory_order_release);
    if (m_pMemoryPool) {
      m_pMemoryPool->UninitStream();
      delete m_pMemoryPool;
      m_pMemoryPool = nullptr;
    }
  }
  for (HANDLE* ph : {&m_hExitEvent, &m_hWorkEvent}) {
    if (*ph) CloseHandle(*ph);
    *ph = nullptr;
  }
  CAutoLock lockWrite(&m_csWriteFile);
  CAutoLock lockFiles(&m_csFiles);
  for (CFifoDiskFile* pFile : m_arrDiskFiles) delete pFile;  // closes and deletes
  m_arrDiskFiles.clear();
  m_pWriteFile = nullptr;
  m_pMoveFile = nullptr;
  m_nPendingMoves.store(0);
  m_nDiskState.store(0);
}

bool CDataFifoMan::WriteRecordToRing(const void* pPayload, LONG nLen) {
  LONG nHead = 4;
  m_pMemoryPool->WriteData(&nLen, nHead);  // native little-endian length
  if (!m_bRunning.load() || nHead != 4) return false;
  LONG nBody = nLen;
  m_pMemoryPool->WriteData(pPayload, nBody);
  return m_bRunning.load() && nBody == nLen;
}

BOOL CDataFifoMan::WriteBuffer(const void* pPayload, LONG nLen) {
  if (pPayload && nLen < 0) return FALSE;
  // Announce this producer before testing m_bRunning (see its comment).
  m_nProducersInside.fetch_add(1);
  struct Leave {
    std::atomic<int>& n;
    ~Leave() { n.fetch_sub(1); }
  } leave{m_nProducersInside};
  if (!m_bRunning.load()) return FALSE;

  if (!pPayload) {
    CAutoLock lock(&m_csFiles);
    m_bEndOfData.store(true);
    MarkEndIfDrainedLocked();
    return TRUE;
  }
  if (static_cast<DWORD>(nLen) > GetRingCapacity()) return FALSE;  // could never fit

  if (m_nBufferingMode.load(std::memory_order_relaxed) == 0 && m_nDiskState.load(std::memory_order_acquire) == 0) {
    WriteRecordToRing(pPayload, nLen);
  } else if (m_nDiskState.load(std::memory_order_acquire) == 0) {
    WriteMemoryFirst(pPayload, nLen);
  } else {
    // Records already on disk keep their place: newer ones follow them there
    // even when the mode has meanwhile turned to 0.
    WriteToDisk(pPayload, nLen);
  }
  return TRUE;
}

BOOL CDataFifoMan::TryWriteBuffer(const void* pPayload, LONG nLen) {
  if (!pPayload || nLen < 0) return FALSE;
  m_nProducersInside.fetch_add(1);
  struct Leave {
    std::atomic<int>& n;
    ~Leave() { n.fetch_sub(1); }
  } leave{m_nProducersInside};
  if (!m_bRunning.load() || m_nBufferingMode.load(std::memory_order_relaxed) != 0 ||
      m_nDiskState.load(std::memory_order_acquire) != 0)
    return FALSE;
  // The caller is the ring's only writer now, so the free space can only
  // grow between the test and the write: the write cannot wait.
  if (m_pMemoryPool->FreeSpace() - 4 < nLen) return FALSE;
  return WriteRecordToRing(pPayload, nLen) ? TRUE : FALSE;
}

void CDataFifoMan::WriteMemoryFirst(const void* pPayload, LONG nLen) {
  // Only this producer adds data while the disk state is 0 (no file exists,
  // so the mover is idle), so the free space can only grow after the test.
  if (m_pMemoryPool->FreeSpace() > nLen + 4) {
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
    return;
  } else {
    m_pWriteFile->CloseFile();
    pFile = OpenNewDiskFile();
  }
  if (pFile) {
    pFile->WriteRecord(pPayload, nLen);
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
  auto* pFile = new (std::nothrow) CFifoDiskFile;
  if (!pFile) return nullptr;
  pFile->SetFolder(m_strDiskPath);
  m_arrDiskFiles.push_back(pFile);
  m_pWriteFile = pFile;
  pFile->CreateNewFile();  // a failure leaves an empty entry the mover drops
  return pFile;
}

BOOL CDataFifoMan::ReadBuffer(void* pDst, LONG& nLen) {
  if (!pDst) {
    nLen = -1;
    return FALSE;
  }
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
    }
  }
  LONG nHead = 4;
  LONG nStored = 0;
  m_pMemoryPool->ReadData(&nStored, nHead);
  if (!m_bRunning.load() || nHead != 4) {
    nResult = -1;
  } else {
    nResult = nStored;
    if (nStored > 0) {
      LONG nBody = nStored;
      m_pMemoryPool->ReadData(pDst, nBody);
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

void CDataFifoMan::MarkEndIfDrainedLocked() {
  // Data still in the ring is read before the end mark takes effect, so the
  // mark may be given as soon as nothing remains on disk.
  if (m_bEndOfData.load() && m_arrDiskFiles.empty()) m_pMemoryPool->SetEndOfStream();
}

DWORD WINAPI CDataFifoMan::MoverThreadProc(LPVOID pParam) {
  static_cast<CDataFifoMan*>(pParam)->MoverLoop();
  return 0;
}

void CDataFifoMan::MoverLoop() {
  while (m_bRunning.load()) {
    if (WaitForSingleObject(m_hWorkEvent, INFINITE) != WAIT_OBJECT_0 || !m_bRunning.load()) break;
    CFifoDiskFile* pFile;
    {
      CAutoLock lock(&m_csFiles);
      pFile = m_pMoveFile;
    }
    EnterCriticalSection(&m_csWriteFile);
    bool bHoldWrite = pFile && pFile == m_pWriteFile;
    if (bHoldWrite)
      m_pWriteFile = nullptr;  // the producer's next disk record opens a new file
    else
      LeaveCriticalSection(&m_csWriteFile);
    if (pFile) MoveFileToMemory(pFile);
    if (bHoldWrite) LeaveCriticalSection(&m_csWriteFile);

    CAutoLock lock(&m_csFiles);
    ResetEvent(m_hWorkEvent);
    m_pMoveFile = nullptr;
    m_nPendingMoves.fetch_sub(1);
    if (!m_bRunning.load()) break;
    // The consumer may already have drained this file's records and be
    // waiting for the next length: it would not ask again, so ask here.
    RequestMoveLocked();
  }
  SetEvent(m_hExitEvent);
}

void CDataFifoMan::MoveFileToMemory(CFifoDiskFile* pFile) {
  pFile->CloseFile();
  for (;;) {
    LONG nLen = 0;
    if (!pFile->ReadRecord(nullptr, nLen) || nLen < 0) break;
    if (nLen > 0 && static_cast<DWORD>(nLen) > m_nMoveBufferSize) {
      BYTE* pBigger = new (std::nothrow) BYTE[static_cast<DWORD>(nLen)];
      if (!pBigger) break;
      delete[] m_pMoveBuffer;
      m_pMoveBuffer = pBigger;
      m_nMoveBufferSize = static_cast<DWORD>(nLen);
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
  if (m_arrDiskFiles.empty() && m_pMemoryPool->FreeSpace() >= static_cast<LONG>(m_nLowWater))
    m_nDiskState.store(0, std::memory_order_release);
  MarkEndIfDrainedLocked();
}
