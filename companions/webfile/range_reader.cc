#include "companions/webfile/range_reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace qltweb {

CRangeReader::CRangeReader(const WebConfig& cfg, std::string url, bool bSign, uint64_t nSize)
    : m_cfg(cfg),
      m_strUrl(std::move(url)),
      m_bSign(bSign),
      m_nSize(nSize),
      m_nChunk(cfg.m_nReadAhead),
      m_nWindow(static_cast<uint64_t>(std::max(1, cfg.m_nPartsInFlight))) {}

CRangeReader::~CRangeReader() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bStop = true;
    m_queue.clear();
  }
  m_cv.notify_all();
  for (auto& worker : m_workers) worker->Join();
}

void CRangeReader::Request(uint64_t nIndex) {
  if (nIndex * m_nChunk >= m_nSize || m_chunks.count(nIndex)) return;
  m_chunks[nIndex] = std::make_shared<Chunk>();
  m_queue.push_back(nIndex);
}

size_t CRangeReader::Read(uint64_t nPos, void* pBuffer, size_t nCount) {
  uint64_t index = nPos / m_nChunk;
  bool forward = m_nLastIndex != UINT64_MAX && (index == m_nLastIndex || index == m_nLastIndex + 1);
  m_nLastIndex = index;
  uint64_t ahead = forward ? m_nWindow : 1;
  std::shared_ptr<Chunk> chunk;
  size_t wanted = 1;
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    // Chunks outside the window are no longer wanted (their memory goes back).
    for (auto it = m_chunks.begin(); it != m_chunks.end();) {
      bool keep = it->first >= index && it->first < index + std::max<uint64_t>(ahead, m_nWindow);
      it = keep ? std::next(it) : m_chunks.erase(it);
    }
    m_queue.erase(std::remove_if(m_queue.begin(), m_queue.end(), [&](uint64_t i) { return !m_chunks.count(i); }),
                  m_queue.end());
    for (uint64_t i = index; i < index + ahead; ++i) Request(i);
    wanted = static_cast<size_t>(std::min<uint64_t>(m_queue.size() + 1, m_nWindow));
  }
  m_cv.notify_all();
  while (m_workers.size() < wanted) {
    auto worker = std::make_unique<CWorkerThread>(L"web range read");
    if (!worker->Start([this] { WorkerLoop(); })) break;
    m_workers.push_back(std::move(worker));
  }
  if (m_workers.empty()) return SetLastError(ERROR_NOT_ENOUGH_MEMORY), 0;
  std::unique_lock<std::mutex> lock(m_mutex);
  chunk = m_chunks[index];
  m_cv.wait(lock, [&] { return chunk->m_bDone; });
  if (chunk->m_dwError) {
    DWORD error = chunk->m_dwError;
    m_chunks.erase(index);  // a later read tries again
    m_nLastIndex = UINT64_MAX;
    return SetLastError(error), 0;
  }
  uint64_t offset = nPos - index * m_nChunk;
  if (offset >= chunk->m_data.size()) return SetLastError(ERROR_BAD_NET_RESP), 0;
  size_t n = std::min<size_t>(nCount, chunk->m_data.size() - offset);
  std::memcpy(pBuffer, chunk->m_data.data() + offset, n);
  return n;
}

void CRangeReader::WorkerLoop() {
  CWebClient client(m_cfg);
  for (;;) {
    uint64_t index;
    std::shared_ptr<Chunk> chunk;
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_cv.wait(lock, [&] { return m_bStop || !m_queue.empty(); });
      if (m_bStop) return;
      index = m_queue.front();
      m_queue.pop_front();
      chunk = m_chunks.at(index);  // a queued index always has its chunk
    }
    uint64_t first = index * m_nChunk;
    uint64_t last = std::min(m_nSize, first + m_nChunk) - 1;
    WebRequest get;
    get.m_strUrl = m_strUrl;
    get.m_bSign = m_bSign;
    get.m_bFollow = !m_bSign;
    get.m_strRange = std::to_string(first) + "-" + std::to_string(last);
    get.m_nBodyHint = static_cast<size_t>(last + 1 - first);
    WebResponse response;
    bool ok = client.Perform(get, response);
    DWORD error = ok ? 0 : client.Error();
    if (ok && response.m_nStatus != 206) {
      // The server sent the whole file: keep this chunk's bytes of it.
      if (response.m_strBody.size() > first)
        response.m_strBody = response.m_strBody.substr(first, last + 1 - first);
      else
        error = ERROR_BAD_NET_RESP;
    }
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      chunk->m_data.swap(response.m_strBody);
      chunk->m_dwError = error;
      chunk->m_bDone = true;
    }
    m_cv.notify_all();
  }
}

}  // namespace qltweb
