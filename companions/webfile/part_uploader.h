// CPartUploader: the parts of one multipart upload, sent by a small pool of
// worker threads while the host goes on writing.
//
// The host thread hands over whole parts with Submit, which blocks while
// m_nMaxHeld parts are queued or in flight: that bound, times the part size,
// is the memory the pool may hold. Each worker owns a CWebClient and sends
// one part at a time (PUT ?partNumber=&uploadId=, retried by the client's
// rule). The first part that fails ends the upload: queued parts are dropped
// and every later Submit returns false.
//
// Thread rule: Submit, Finish, Stop, Parts and Error come from one owning
// thread (the web-file object's caller); the workers are joined by Finish or
// Stop (and by the destructor, which calls Stop).
#ifndef QLTFSDK_COMPANIONS_WEBFILE_PART_UPLOADER_H
#define QLTFSDK_COMPANIONS_WEBFILE_PART_UPLOADER_H

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "companions/webfile/web_config.h"
#include "platform/worker_thread.h"

namespace qltweb {

class CPartUploader {
 public:
  // objectUrl: the object's URL without a query; uploadId as the store gave it.
  CPartUploader(const WebConfig& cfg, std::string objectUrl, std::string uploadId);
  ~CPartUploader();
  CPartUploader(const CPartUploader&) = delete;
  CPartUploader& operator=(const CPartUploader&) = delete;

  // Queues part nPart (1-based) with its bytes, starting a worker when fewer
  // than the configured number run. Blocks while the pool holds its maximum.
  // False when the upload has failed (Error() says why) or no worker starts.
  bool Submit(int nPart, std::vector<char> data);
  // Waits until every submitted part is stored or one failed, then joins the
  // workers. True when all were stored.
  bool Finish();
  // Drops queued parts, waits for the parts in flight, joins the workers.
  void Stop();
  // Part number -> ETag of every part stored, ascending.
  std::map<int, std::string> Parts();
  // The platform error of the first failed part; 0 when none failed.
  DWORD Error();

 private:
  struct Job {
    int m_nPart;
    std::vector<char> m_data;
  };
  void WorkerLoop();
  void JoinWorkers();

  const WebConfig m_cfg;
  const std::string m_strObjectUrl;
  const std::string m_strUploadId;
  const size_t m_nMaxHeld;                                // parts queued plus in flight at most
  std::vector<std::unique_ptr<CWorkerThread>> m_workers;  // owning thread only

  std::mutex m_mutex;            // guards every field below
  std::condition_variable m_cv;  // signalled on each change of the fields below
  std::deque<Job> m_queue;       // parts waiting for a worker
  size_t m_nBusy = 0;            // parts in flight
  bool m_bStop = false;          // workers end once they see it
  DWORD m_dwError = 0;           // first failure; non-zero ends the upload
  std::map<int, std::string> m_etags;
};

}  // namespace qltweb

#endif  // QLTFSDK_COMPANIONS_WEBFILE_PART_UPLOADER_H
