// KxFileEx: the implementation behind QLCT_FileEx.
//
// Each open chooses what the writer writes to (CWriterTarget): a web file
// goes to CWebTarget, a virtual-storage file to CVirtualTarget, and a local
// file is the writer's own target (local_open.cc, local_write.cc,
// local_seek.cc). A local file is written through the staging engine: the
// host's bytes are gathered into whole blocks of m_nBlockSize bytes and each
// block goes to the file system through one block write, which times it for
// the write timing log, tracks positions, forces a flush past 16 MiB and,
// with WriteRetryCount set, flushes every block and rewrites a failed one
// after reopening the file. With a write cache (CWriteCache) the block
// writes and seeks happen on the cache's thread instead.
//
// Results follow the platform's file calls (0 for failure). Failures write
// error-log entries while LogFileOn is set and report error code 200 to the
// utility library's register. No operation lets an exception out.
//
// Threads: a writer serves one host thread at a time; every field below is
// used on that thread only unless its comment says otherwise. m_cs is held
// across opening and attaching a local file.
#ifndef QLTFSDK_WRITER_KX_FILE_EX_H
#define QLTFSDK_WRITER_KX_FILE_EX_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "companions/virtualfile/qvf_virtual_file.h"
#include "companions/webfile/web_file_api.h"
#include "diagnostics/error_code_register.h"
#include "diagnostics/error_entries.h"
#include "diagnostics/log_file_writer2.h"
#include "fifo/kx_data_fifo_pool.h"
#include "platform/thread_annotations.h"
#include "pool/registry.h"
#include "qltfsdk/fileex.h"
#include "writer/virtual_target.h"
#include "writer/web_target.h"
#include "writer/write_cache.h"
#include "writer/writer_registry_entry.h"
#include "writer/writer_target.h"

class KxFileEx : private CWriterTarget, private CWriteCache::CClient {
 public:
  KxFileEx();
  virtual ~KxFileEx();
  KxFileEx(const KxFileEx&) = delete;
  KxFileEx& operator=(const KxFileEx&) = delete;

  // Copies *pInfo (null keeps the defaults). Always 1.
  BOOL Initialize(const QLCT_FIlEACCESSINFO_ST* pInfo);

  // Opens a file; returns its handle or 0. See QLCT_FileEx.
  HANDLE CreateKXFile(const CComBSTR& strFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                      LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                      DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
  BOOL Attach(HANDLE hFile, const CComBSTR& strFileName);

  // The handle argument of these calls is ignored for local files: the
  // writer works on its own m_hFile.
  DWORD GetFileSize(HANDLE hFile, LPDWORD pHigh);
  BOOL GetFileSizeEx(HANDLE hFile, PLARGE_INTEGER pSize);
  DWORD SetFilePointer(HANDLE hFile, LONG lDistance, LONG* pDistanceHigh, DWORD dwMoveMethod);
  BOOL SetFilePointerEx(HANDLE hFile, LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos, DWORD dwMoveMethod);
  BOOL ReadFile(HANDLE hFile, LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED pOverlapped);
  BOOL WriteFile(HANDLE hFile, LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, LPOVERLAPPED pOverlapped,
                 DWORD dwUserData);
  BOOL CloseHandle(HANDLE hFile);
  BOOL GetUserDataList(CArray<DWORD, DWORD>& list, int nMode);

  // A copy of the status record. Any thread.
  KxWriterStatus GetStatus() { return m_registryEntry.Copy(); }

  // For tests and tools: the current write block size and staged bytes.
  int32_t BlockSize() const { return m_nBlockSize; }
  int32_t StagedBytes() const { return m_nStaged; }

 private:
  // The local file as the writer's target (CWriterTarget): the staging
  // engine, the write cache, managed positions and the preset size.
  BOOL Write(LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, DWORD dwUserData) override;
  BOOL Seek(LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos, DWORD dwMoveMethod) override;
  BOOL GetSize(PLARGE_INTEGER pSize) override;
  DWORD GetSize32(LPDWORD pHigh) override;
  BOOL Read(LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED pOverlapped) override;
  BOOL Close() override;
  BOOL AttachFile(HANDLE hFile, const CComBSTR& strFileName) override;
  BOOL GetUserData(CArray<DWORD, DWORD>& list, int nMode) override;

  // Open helpers.
  HANDLE OpenLocal(const CComBSTR& strFileName, DWORD dwDesiredAccess, DWORD dwShareMode, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
  // Allocates hFile at its registered preset size (managed mode), then puts
  // the file pointer at nPos. False
  // when moving the pointer or setting the end failed.
  bool ApplyPresetSize(HANDLE hFile, const CComBSTR& strName, uint64_t nPos);
  // Takes the registered block size for the name, growing the staging
  // buffer when needed. False for a block size below 1 or no memory.
  bool ApplyBlockSize(const CComBSTR& strName);
  void ResetCounters();
  // Closes the open local file as CloseHandle does (drain, staged bytes,
  // trim, options cleared). Used by close and by an open on a writer that
  // still holds a file. 1 when every byte accepted since the open reached
  // the file, else 0 with the last error set.
  BOOL CloseLocal();
  // Undoes a local open that failed after the file was opened: trims a
  // preset allocation back to nStart bytes, forgets the file's options,
  // closes the handle and deletes the file when bCreated (this open made
  // it). Keeps the caller's last error.
  void AbandonLocal(bool bCreated, uint64_t nStart);
  // True when the open file is written through a write cache (asked for by
  // the access information or the registry); without a pool such a file
  // refuses writes and seeks.
  bool UsesCache() const { return m_info.nCacheMode != 0; }

  // The writer as the cache thread sees it (CWriteCache::CClient).
  DWORD CacheBlockWrite(const BYTE* pBuffer, int64_t nLength) override { return BlockWrite(m_hFile, pBuffer, nLength); }
  bool CacheSeek(LARGE_INTEGER liDistance, DWORD dwMoveMethod) override;
  void CacheUserData(DWORD dwUserData) override;
  void CacheLogEntry(const CErrorLogEntry& entry) override { LogEntry(entry); }
  // The offset a block write reports to the timing log: the host's logical
  // position, or, while a cache thread does the writes, its own position.
  __int64 LoggedOffset() const { return static_cast<__int64>(m_cache.HasPool() ? m_nPhysPos : m_nLogicalPos); }

  // The block write: writes nLength bytes at the file pointer and returns
  // the bytes written (0 on failure).
  DWORD BlockWrite(HANDLE hFile, const BYTE* pBuffer, int64_t nLength);
  // The retry write: writes to m_hFile, flushes, and on failure reopens the
  // file, seeks back to m_nGoodPos and writes again, WriteRetryCount times.
  BOOL RetryWrite(const BYTE* pBuffer, DWORD nLength, DWORD* pWritten);
  // One timed platform write to m_hFile with its bookkeeping and entries.
  DWORD WriteOnce(const BYTE* pBuffer, DWORD nLength);
  // The one seek of m_hFile, for SetFilePointerEx and the cache thread:
  // moves the pointer to (liTo, dwMoveMethod) and puts the platform's new
  // position in newPos; the next block is written there and a retry
  // rewrites from there, and with bExtend the furthest end grows to it. On
  // failure logs a seek entry naming nLoggedDistance and returns false with
  // the last error set.
  bool SeekFile(LARGE_INTEGER liTo, DWORD dwMoveMethod, int64_t nLoggedDistance, bool bExtend, LARGE_INTEGER& newPos);
  // Notes nWritten bytes just written at nAt and starts the write-back of
  // what has gathered (QltStartWriteBack) once it reaches kWriteBackChunk.
  // Keeps nothing durable: only the forced flush does.
  void StartWriteBack(HANDLE hFile, uint64_t nAt, DWORD nWritten);
  // Writes out the staged bytes; true when all of them reached the file.
  bool WriteOutStaged();
  void TrackWritten(DWORD nWritten);
  // Counts a WriteFile that failed and keeps the first failure's last error
  // for close. Host thread.
  void NoteFailedWrite();
  // The managed position a seek moves to, or false (last error set) for a
  // target before the start. FILE_END counts from the furthest byte written.
  bool ManagedTarget(int64_t nDistance, DWORD dwMoveMethod, uint64_t* pTarget) const;

  static GUID NewGuid();
  // Writes entry to the error log while LogFileOn is set.
  void LogEntry(const CErrorLogEntry& entry);
  void RefreshStatus();

  // Identity and locking.
  GUID m_guid = NewGuid();
  CRITICAL_SECTION m_cs;  // held across local open and attach

  // Configuration.
  QLCT_FIlEACCESSINFO_ST m_info{};  // own copy; the BSTR is owned

  // The open file.
  HANDLE m_hFile;                             // local file; INVALID_HANDLE_VALUE when none
  std::wstring m_strPath;                     // path of the local file, named by error-log entries
  CComBSTR m_bstrFileName;                    // name given to CreateKXFile/Attach
  BOOL m_bVirtual = 0;                        // the file lives in the virtual storage (never cleared)
  CQVFVirtualFile* m_pVirtualFile = nullptr;  // owned; ended with QltDeleteVirtualFile (by m_virtualTarget)
  BOOL m_bWebFile = 0;                        // the file is a web file (never cleared)
  CQltWebFile* m_pWebWriter = nullptr;        // owned; ended with Destroy(1) (by m_webTarget)

  // Staging.
  BYTE* m_pStagingBlock = nullptr;  // the allocation, owned: m_nStagingCapacity + kStagingAlign - 1 bytes
  BYTE* m_pStaging = nullptr;       // m_nStagingCapacity bytes inside it, starting kStagingAlign-aligned
  int64_t m_nStagingCapacity = 0;
  int32_t m_nBlockSize = 0;   // write block size, above 0
  int32_t m_nStaged = 0;      // 0 <= m_nStaged < m_nBlockSize between calls
  uint64_t m_nUnflushed = 0;  // bytes handed to the file system since the last forced flush
  // Bytes written from m_nWriteBackFrom on whose write-back has not been
  // started yet (see StartWriteBack).
  uint64_t m_nWriteBackFrom = 0;
  uint64_t m_nWriteBackBytes = 0;

  // The current file position of m_hFile; false when it cannot be read.
  bool FilePosition(uint64_t* pPos);

  // Positions and sizes.
  uint64_t m_nLogicalPos = 0;   // next byte the host writes, staged bytes counted
  uint64_t m_nLogicalSize = 0;  // largest m_nLogicalPos reached
  uint64_t m_nPhysPos = 0;      // where the last file-system write ended
  uint64_t m_nExtent = 0;       // furthest end of any write or seek; close trims to it
  uint64_t m_nGoodPos = 0;      // where the next block write starts: a retry rewrites from here
  uint64_t m_nPresetSize = 0;   // preset size applied at open, 0 if none

  // Failure bookkeeping.
  uint64_t m_nFailedWrites = 0;  // WriteFile calls that did not write everything
  bool m_bLocalOpen = false;     // a local file is open (from a good open or attach until close)
  DWORD m_dwFailError = 0;       // last error of the first failed write since the open
  CLogFileWriter2 m_errorLog;
  CErrorCodeRegister m_errorCodes;

  // What the writer writes to, chosen at open: the local file (the writer
  // itself) until a web or virtual-storage file is opened, then that kind
  // for good, as m_bWebFile and m_bVirtual say.
  CWebTarget m_webTarget{m_pWebWriter};
  CVirtualTarget m_virtualTarget{m_pVirtualFile, m_nFailedWrites, m_dwFailError};
  CWriterTarget* m_pTarget = this;

  // The write cache. While its thread runs, that thread alone makes the
  // block writes and seeks (through the CClient calls above), so m_hFile,
  // m_nPhysPos, m_nExtent, m_nGoodPos, m_nUnflushed and the write-back
  // fields are its own until the cache has been drained or ended.
  CWriteCache m_cache{*this};

  // Status.
  uint64_t m_nBytesAccepted = 0;  // bytes accepted by WriteFile since the open
  uint64_t m_nBytesOnDisk = 0;    // bytes written by the sector-aligned route (never taken here)
  int32_t m_nWriteMs = 0;         // time spent in that route

  // User data of the writes, in write order.
  CRITICAL_SECTION m_csUserData;  // a cache thread appends while the host reads
  CArray<DWORD, DWORD> m_userData GUARDED_BY(m_csUserData);

  // The status record, listed in the registry of files being written while
  // a local file is open, so hosts can ask for its status.
  CWriterRegistryEntry m_registryEntry{m_guid};
  void EnterRegistry();
};

#endif  // QLTFSDK_WRITER_KX_FILE_EX_H
