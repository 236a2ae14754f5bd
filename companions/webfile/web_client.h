// CWebClient: one libcurl handle that makes HTTP(S) and FTP requests for the
// plug-in, with SigV4 signing for the store, bounded time-outs and bounded
// retries.
//
// Retry rule: a 5xx answer (503 SlowDown included), a dropped connection or a
// time-out is retried up to WebConfig::m_nMaxRetries times with a doubling
// pause (200 ms, 400 ms, ... at most 3 s) while less than m_nRetryTimeMs has
// passed since the first attempt; any other answer, 4xx included, ends the
// request at once.
//
// Thread rule: one object serves one thread at a time (each upload worker
// has its own). The handle keeps its connections between requests.
#ifndef QLTFSDK_COMPANIONS_WEBFILE_WEB_CLIENT_H
#define QLTFSDK_COMPANIONS_WEBFILE_WEB_CLIENT_H

#include <curl/curl.h>

#include <cstdint>
#include <string>
#include <vector>

#include "companions/webfile/web_config.h"
#include "qltfsdk/wintypes.h"

namespace qltweb {

// One request. The body (PUT, POST) is the caller's and must outlive Perform.
struct WebRequest {
  std::string m_strMethod = "GET";  // GET, HEAD, PUT, POST or DELETE
  std::string m_strUrl;
  std::vector<std::string> m_headers;  // "Name: value"
  const char* m_pBody = nullptr;
  size_t m_nBody = 0;
  HANDLE m_hBodyFile = nullptr;  // or the body read from this file's start (m_nBody bytes)
  bool m_bSign = false;          // SigV4 with the configured credentials
  bool m_bFollow = false;        // follow redirects (existence checks)
  std::string m_strRange;        // "first-last" for a ranged GET; empty: whole
  size_t m_nBodyHint = 0;        // bytes expected in the answer body (reserved up front)
  std::string m_strUser;         // FTP login; empty: anonymous
  std::string m_strPassword;     // FTP login; never logged
};

struct WebResponse {
  CURLcode m_eCode = CURLE_OK;
  long m_nStatus = 0;      // HTTP status, or the FTP reply code
  std::string m_strBody;   // answer body (bounded by the caller's range)
  std::string m_strETag;   // ETag header, as sent (with its quotes)
  int64_t m_nLength = -1;  // Content-Length, -1 when absent
  int64_t m_nTotal = -1;   // total size from Content-Range, -1 when absent
};

// The platform error for an outcome: 5 denied (403, FTP 530), 3 no such
// bucket, 2 not found (404, FTP 550), 1225 refused, 1460 time-out, 58 any
// other failure of the store or an answer we cannot read.
DWORD ErrorForOutcome(CURLcode code, long status, const std::string& body);

// curl_global_init once per process. Any thread. False when libcurl is unusable.
bool WebGlobalInit();

class CWebClient {
 public:
  // Keeps a copy of the configuration. The handle is made at the first request.
  explicit CWebClient(const WebConfig& cfg);
  ~CWebClient();
  CWebClient(const CWebClient&) = delete;
  CWebClient& operator=(const CWebClient&) = delete;

  // Makes the request with the retry rule. True for a 2xx answer (or a
  // completed FTP step); otherwise false with Error() set (also for a 2xx
  // answer whose body is an <Error> document when bErrorBody).
  bool Perform(const WebRequest& request, WebResponse& response, bool bErrorBody = false);
  // The platform error of the last failed Perform; 0 after a success.
  DWORD Error() const { return m_dwError; }
  // Requests made by this client, retries included (tests read it).
  int Attempts() const { return m_nAttempts; }

 private:
  void PerformOnce(const WebRequest& request, WebResponse& response);

  WebConfig m_cfg;
  CURL* m_pEasy = nullptr;  // owned; made lazily
  DWORD m_dwError = 0;
  int m_nAttempts = 0;
};

}  // namespace qltweb

#endif  // QLTFSDK_COMPANIONS_WEBFILE_WEB_CLIENT_H
