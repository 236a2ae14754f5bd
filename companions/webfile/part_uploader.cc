#include "companions/webfile/part_uploader.h"

#include <utility>

#include "companions/webfile/web_client.h"
#include "companions/webfile/web_url.h"

namespace qltweb {

CPartUploader::CPartUploader(const WebConfig& cfg, std::string objectUrl, std::string uploadId)
    : m_cfg(cfg),
      m_strObjectUrl(std::move(objectUrl)),
      m_strUploadId(std::move(uploadId)),
      // The host's object keeps the first and the current part; the rest of
      // the memory limit is the pool's.
      m_nMaxHeld(static_cast<size_t>(std::max<uint64_t>(1, cfg.m_nMemoryLimit / cfg.m_nPartSize - 2))) {}

CPartUploader::~CPartUploader() { Stop(); }

bool CPartUploader::Submit(int nPart, std::vector<char> data) {
  size_t nBusyOrQueued = 0;
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait(lock, [&] { return m_dwError != 0 || m_queue.size() + m_nBusy < m_nMaxHeld; });
    if (m_dwError != 0) return false;
    m_queue.push_back(Job{nPart, std::move(data)});
    nBusyOrQueued = m_queue.size() + m_nBusy;
  }
  m_cv.notify_all();
  size_t nWanted = std::min<size_t>(static_cast<size_t>(m_cfg.m_nPartsInFlight), m_nMaxHeld);
  if (m_workers.size() < nWanted && m_workers.size() < nBusyOrQueued) {
    auto worker = std::make_unique<CWorkerThread>(L"web part upload");
    if (worker->Start([this] { WorkerLoop(); })) {
      m_workers.push_back(std::move(worker));
    } else if (m_workers.empty()) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_dwError = ERROR_NOT_ENOUGH_MEMORY;
      m_queue.clear();
      return false;
    }
  }
  return true;
}

void CPartUploader::WorkerLoop() {
  CWebClient client(m_cfg);
  for (;;) {
    Job job;
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_cv.wait(lock, [&] { return m_bStop || !m_queue.empty(); });
      if (m_queue.empty()) return;  // stop requested and nothing left
      job = std::move(m_queue.front());
      m_queue.pop_front();
      ++m_nBusy;
    }
    WebRequest request;
    request.m_strMethod = "PUT";
    request.m_strUrl =
        m_strObjectUrl + "?partNumber=" + std::to_string(job.m_nPart) + "&uploadId=" + UriEncode(m_strUploadId, false);
    request.m_pBody = job.m_data.data();
    request.m_nBody = job.m_data.size();
    request.m_bSign = true;
    WebResponse response;
    bool ok = client.Perform(request, response);
    DWORD error = ok ? 0 : client.Error();
    if (ok && response.m_strETag.empty()) error = ERROR_BAD_NET_RESP;  // a part without ETag cannot be completed
    job.m_data = std::vector<char>();  // give the memory back before taking the next part
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      --m_nBusy;
      if (error == 0) {
        m_etags[job.m_nPart] = response.m_strETag;
      } else if (m_dwError == 0) {
        m_dwError = error;
        m_queue.clear();
      }
    }
    m_cv.notify_all();
  }
}

bool CPartUploader::Finish() {
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait(lock, [&] { return m_dwError != 0 || (m_queue.empty() && m_nBusy == 0); });
  }
  JoinWorkers();
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_dwError == 0;
}

void CPartUploader::Stop() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_queue.clear();
  }
  JoinWorkers();
}

void CPartUploader::JoinWorkers() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bStop = true;
  }
  m_cv.notify_all();
  for (auto& worker : m_workers) worker->Join();
  m_workers.clear();
}

std::map<int, std::string> CPartUploader::Parts() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_etags;
}

DWORD CPartUploader::Error() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_dwError;
}

}  // namespace qltweb
