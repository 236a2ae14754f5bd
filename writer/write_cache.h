// CWriteCache: a writer's write cache. The host's writes and seeks are
// queued as records in a data FIFO pool and returned at once; one cache
// thread per open file takes the records out in order and hands them to the
// writer's block write and seek routine, so slow or retried writes delay
// only that thread.
//
// The cache reaches the writer only through CClient: what the cache thread
// does to the file goes through those calls, and the writer's file fields
// are its own until Stop has joined the thread.
//
// Threads: every call comes from the writer's host thread except Failed and
// Error, which the cache thread's client calls may not use either (they are
// for the host). The cache thread runs between SetUp and Stop/Abort, which
// join it.
#ifndef QLTFSDK_WRITER_WRITE_CACHE_H
#define QLTFSDK_WRITER_WRITE_CACHE_H

#include <atomic>
#include <cstdint>
#include <vector>

#include "diagnostics/error_entries.h"
#include "fifo/kx_data_fifo_pool.h"
#include "platform/platform.h"
#include "qltfsdk/fileex.h"

class CWriteCache {
 public:
  // What the cache thread asks of the writer. Called on the cache thread
  // only, one call at a time.
  class CClient {
   public:
    // Writes nLength bytes at the file pointer; the bytes written (0 on
    // failure, last error set).
    virtual DWORD CacheBlockWrite(const BYTE* pBuffer, int64_t nLength) = 0;
    // Moves the file pointer as the platform's 64-bit seek does; the next
    // block is written there. False (last error set, entry logged) when the
    // platform seek fails.
    virtual bool CacheSeek(LARGE_INTEGER liDistance, DWORD dwMoveMethod) = 0;
    // Appends the user data of a write whose bytes are all in the file.
    virtual void CacheUserData(DWORD dwUserData) = 0;
    // Writes an error-log entry for the open file.
    virtual void CacheLogEntry(const CErrorLogEntry& entry) = 0;

   protected:
    ~CClient() = default;
  };

  // Holds no pool until SetUp. client must outlive the cache.
  explicit CWriteCache(CClient& client);
  // Ends the cache without draining it (see End).
  ~CWriteCache();
  CWriteCache(const CWriteCache&) = delete;
  CWriteCache& operator=(const CWriteCache&) = delete;

  // Sets the cache up for the file just opened as hFile under strFileName:
  // ends any earlier cache without draining it (its records belong to an
  // earlier file); sets info.nCacheMode to 3 when a host asked for a cache
  // for the name through the registry; with a cache asked for in managed
  // mode, stores the cache folder (named after guid) in
  // info.bstrDiskPoolPath, starts a pool and the cache thread. 1 on success,
  // also when no cache is asked for; 0 on failure with the last error set
  // and the pool and its folder gone.
  int SetUp(QLCT_FIlEACCESSINFO_ST& info, const CComBSTR& strFileName, const GUID& guid, HANDLE hFile);
  // True while a pool is set up (from a good SetUp to End).
  bool HasPool() const { return m_pPool != nullptr; }

  // Queue a write as header and data records (split into several when
  // longer than one record can be; the user data rides on the last), or a
  // seek to the absolute position nTarget as header and seek record. False
  // without a pool or when the pool refuses a record.
  bool QueueWrite(const BYTE* pData, DWORD nLength, DWORD dwUserData);
  bool QueueSeek(uint64_t nTarget);

  // Marks the end of the data and waits, without a time limit, until the
  // thread has written every queued record and ended; then stops the pool.
  void Drain();
  // Stops the pool at once (queued records are dropped) and joins the
  // thread, then frees the pool.
  void End();

  // True once the cache thread failed a write or seek of its own, or ended
  // before the end of the data (the rest of the queue is then dropped).
  bool Failed() const { return m_bCacheFailed.load(std::memory_order_acquire); }
  // The error of the thread's first failure; meaningful once Failed is true.
  DWORD Error() const { return m_dwCacheError; }
  // Forgets a failure. Only while no cache thread runs.
  void ResetFailure();

 private:
  // Waits until no cache thread runs (joining it), then stops the pool.
  void Stop();
  // Stops the pool, then Stop: for a cache that must end without draining.
  void Abort();
  BOOL Queue(const void* pBuffer, int nLength);
  static DWORD WINAPI ThreadMain(LPVOID pCache);
  DWORD Run();
  // Takes the data record of a header of nHeaderLength bytes out of the
  // pool and block-writes it; a failed write is noted. Throws when the
  // record is missing. Cache thread.
  void HandleDataRecord(int32_t nHeaderLength, std::vector<BYTE>& buffer);
  // Keeps the first failure of the cache thread. Cache thread.
  void NoteFailure(DWORD dwError);

  CClient& m_client;
  // The host thread sets these while no cache thread runs; the thread only
  // reads them.
  // The pool's implementation object rather than its exported facade: the
  // cache thread reads records in place through it.
  KxDataFifoPool* m_pPool = nullptr;  // owned; null: no cache
  CAutoHandle m_hCacheIdle;           // manual reset; set while no cache thread runs
  CAutoHandle m_hCacheThread;         // the running cache thread, joined by Stop
  uint32_t m_nFileTag = 0;            // the file's handle at set-up, for the record headers
  int m_nRecordMax = 0;               // the longest record the pool takes
  // Set by the cache thread at its first failure; read by the host to fail
  // later writes and the close. Reset by the host only while no thread runs.
  std::atomic<bool> m_bCacheFailed{false};
  // The error of that failure: written by the cache thread before it sets
  // m_bCacheFailed (release), read by the host after seeing the flag
  // (acquire) or after joining the thread.
  DWORD m_dwCacheError = 0;
};

#endif  // QLTFSDK_WRITER_WRITE_CACHE_H
