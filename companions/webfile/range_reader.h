// CRangeReader: the bytes of one object or HTTP file in chunks of a fixed
// size, fetched by ranged GETs on a small pool of worker threads. While the
// host reads forward, the next chunks are already on their way (up to the
// configured parts in flight); a read elsewhere fetches only its own chunk.
//
// Memory: at most the chunks of the current window (parts in flight) plus
// the ones in flight when the window moved.
//
// Thread rule: Read and the destructor come from one owning thread; the
// workers are joined by the destructor.
#ifndef QLTFSDK_COMPANIONS_WEBFILE_RANGE_READER_H
#define QLTFSDK_COMPANIONS_WEBFILE_RANGE_READER_H

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "companions/webfile/web_client.h"
#include "companions/webfile/web_config.h"
#include "platform/worker_thread.h"

namespace qltweb {

class CRangeReader {
 public:
  // url: what to GET; bSign: SigV4 (else redirects are followed); nSize:
  // the file's size from its HEAD.
  CRangeReader(const WebConfig& cfg, std::string url, bool bSign, uint64_t nSize);
  ~CRangeReader();
  CRangeReader(const CRangeReader&) = delete;
  CRangeReader& operator=(const CRangeReader&) = delete;

  // Copies up to nCount bytes from nPos (below the size) into pBuffer.
  // Bytes copied (> 0); 0 with the last error set when the fetch failed.
  size_t Read(uint64_t nPos, void* pBuffer, size_t nCount);

 private:
  struct Chunk {
    bool m_bDone = false;
    DWORD m_dwError = 0;
    std::string m_data;
  };
  void Request(uint64_t nIndex);  // requires m_mutex
  void WorkerLoop();

  const WebConfig m_cfg;
  const std::string m_strUrl;
  const bool m_bSign;
  const uint64_t m_nSize;
  const uint64_t m_nChunk;   // bytes per chunk (the read-ahead size)
  const uint64_t m_nWindow;  // chunks fetched ahead of a forward reader, the current one included
  std::vector<std::unique_ptr<CWorkerThread>> m_workers;  // owning thread only
  uint64_t m_nLastIndex = UINT64_MAX;                     // owning thread only: chunk of the last Read

  std::mutex m_mutex;            // guards the fields below
  std::condition_variable m_cv;  // signalled when a chunk is done, a request queued or the stop raised
  std::map<uint64_t, std::shared_ptr<Chunk>> m_chunks;  // requested chunks by index, done or not
  std::deque<uint64_t> m_queue;                         // indexes waiting for a worker
  bool m_bStop = false;
};

}  // namespace qltweb

#endif  // QLTFSDK_COMPANIONS_WEBFILE_RANGE_READER_H
