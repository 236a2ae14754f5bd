#include "companions/webfile/web_client.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <mutex>

#include "companions/webfile/s3_xml.h"
#include "platform/platform.h"

namespace qltweb {
namespace {

// Feeds a caller-owned body to libcurl; rewinds on request.
struct BodySource {
  const char* m_pData;  // memory body, or null with m_hFile
  HANDLE m_hFile;
  size_t m_nSize;
  size_t m_nOffset;
};

size_t ReadBody(char* buffer, size_t size, size_t count, void* user) {
  auto* src = static_cast<BodySource*>(user);
  size_t n = std::min(size * count, src->m_nSize - src->m_nOffset);
  if (n == 0) return 0;
  if (src->m_hFile) {
    DWORD got = 0;
    if (!ReadFile(src->m_hFile, buffer, static_cast<DWORD>(std::min<size_t>(n, 1u << 30)), &got, nullptr) || got == 0)
      return CURL_READFUNC_ABORT;
    n = got;
  } else {
    std::memcpy(buffer, src->m_pData + src->m_nOffset, n);
  }
  src->m_nOffset += n;
  return n;
}

int SeekBody(void* user, curl_off_t offset, int origin) {
  auto* src = static_cast<BodySource*>(user);
  if (origin != SEEK_SET || offset < 0 || static_cast<size_t>(offset) > src->m_nSize) return CURL_SEEKFUNC_FAIL;
  if (src->m_hFile) {
    LARGE_INTEGER to;
    to.QuadPart = offset;
    if (!SetFilePointerEx(src->m_hFile, to, nullptr, FILE_BEGIN)) return CURL_SEEKFUNC_FAIL;
  }
  src->m_nOffset = static_cast<size_t>(offset);
  return CURL_SEEKFUNC_OK;
}

size_t WriteBody(char* data, size_t size, size_t count, void* user) {
  auto* body = static_cast<std::string*>(user);
  body->append(data, size * count);
  return size * count;
}

bool HeaderIs(const std::string& line, const char* name) {
  size_t n = std::strlen(name);
  if (line.size() <= n || line[n] != ':') return false;
  for (size_t i = 0; i < n; ++i)
    if (std::tolower(static_cast<unsigned char>(line[i])) != name[i]) return false;
  return true;
}

std::string HeaderValue(const std::string& line) {
  size_t colon = line.find(':');
  size_t b = line.find_first_not_of(" \t", colon + 1);
  size_t e = line.find_last_not_of(" \t\r\n");
  return b == std::string::npos || e < b ? std::string() : line.substr(b, e - b + 1);
}

size_t ReadHeader(char* data, size_t size, size_t count, void* user) {
  auto* response = static_cast<WebResponse*>(user);
  std::string line(data, size * count);
  if (line.compare(0, 5, "HTTP/") == 0) {  // a new answer (after a redirect or 100-continue)
    response->m_strETag.clear();
    response->m_nTotal = -1;
  } else if (HeaderIs(line, "etag")) {
    response->m_strETag = HeaderValue(line);
  } else if (HeaderIs(line, "content-range")) {
    std::string value = HeaderValue(line);
    size_t slash = value.rfind('/');
    if (slash != std::string::npos && slash + 1 < value.size() && value[slash + 1] != '*')
      response->m_nTotal = std::strtoll(value.c_str() + slash + 1, nullptr, 10);
  }
  return size * count;
}

bool Retryable(const WebResponse& r) {
  switch (r.m_eCode) {
    case CURLE_OK: return r.m_nStatus >= 500 && r.m_nStatus <= 599;
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE: return true;
    default: return false;
  }
}

bool IsFtp(const std::string& url) { return url.compare(0, 6, "ftp://") == 0; }

}  // namespace

DWORD ErrorForOutcome(CURLcode code, long status, const std::string& body) {
  switch (code) {
    case CURLE_OK: break;
    case CURLE_COULDNT_CONNECT:
    case CURLE_COULDNT_RESOLVE_HOST: return ERROR_CONNECTION_REFUSED;
    case CURLE_OPERATION_TIMEDOUT: return ERROR_TIMEOUT;
    case CURLE_LOGIN_DENIED:
    case CURLE_REMOTE_ACCESS_DENIED: return ERROR_ACCESS_DENIED;
    case CURLE_REMOTE_FILE_NOT_FOUND: return ERROR_FILE_NOT_FOUND;
    case CURLE_OUT_OF_MEMORY: return ERROR_NOT_ENOUGH_MEMORY;
    default: return ERROR_BAD_NET_RESP;
  }
  std::string s3Code = XmlElementText(body, "Code");
  if (s3Code == "NoSuchBucket") return ERROR_PATH_NOT_FOUND;
  if (s3Code == "NoSuchKey") return ERROR_FILE_NOT_FOUND;
  if (status == 403 || s3Code == "AccessDenied" || s3Code == "SignatureDoesNotMatch" || s3Code == "InvalidAccessKeyId")
    return ERROR_ACCESS_DENIED;
  if (status == 404) return ERROR_FILE_NOT_FOUND;
  return ERROR_BAD_NET_RESP;
}

bool WebGlobalInit() {
  static std::once_flag once;
  static bool ok = false;
  std::call_once(once, [] { ok = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK; });
  return ok;
}

CWebClient::CWebClient(const WebConfig& cfg) : m_cfg(cfg) {}

CWebClient::~CWebClient() {
  if (m_pEasy) curl_easy_cleanup(m_pEasy);
  std::fill(m_cfg.m_strSecretKey.begin(), m_cfg.m_strSecretKey.end(), '\0');
}

bool CWebClient::Perform(const WebRequest& request, WebResponse& response, bool bErrorBody) {
  ULONGLONG start = GetTickCount64();
  DWORD pauseMs = 200;
  for (int attempt = 0;; ++attempt) {
    response = WebResponse();
    response.m_strBody.reserve(request.m_nBodyHint);
    PerformOnce(request, response);
    bool ok = response.m_eCode == CURLE_OK &&
              (IsFtp(request.m_strUrl) || (response.m_nStatus >= 200 && response.m_nStatus <= 299)) &&
              !(bErrorBody && XmlIsError(response.m_strBody));
    if (ok) {
      m_dwError = 0;
      return true;
    }
    bool errorBody200 = response.m_eCode == CURLE_OK && response.m_nStatus >= 200 && response.m_nStatus <= 299;
    bool again =
        (Retryable(response) || (errorBody200 && XmlElementText(response.m_strBody, "Code") == "InternalError")) &&
        attempt < m_cfg.m_nMaxRetries &&
        GetTickCount64() - start + pauseMs < static_cast<ULONGLONG>(m_cfg.m_nRetryTimeMs);
    if (!again) {
      m_dwError = ErrorForOutcome(response.m_eCode, response.m_nStatus, response.m_strBody);
      return false;
    }
    Sleep(pauseMs);
    pauseMs = std::min<DWORD>(pauseMs * 2, 3000);
  }
}

void CWebClient::PerformOnce(const WebRequest& request, WebResponse& response) {
  ++m_nAttempts;
  if (!WebGlobalInit()) {
    response.m_eCode = CURLE_FAILED_INIT;
    return;
  }
  if (!m_pEasy) m_pEasy = curl_easy_init();
  if (!m_pEasy) {
    response.m_eCode = CURLE_OUT_OF_MEMORY;
    return;
  }
  CURL* h = m_pEasy;
  curl_easy_reset(h);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_URL, request.m_strUrl.c_str());
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, m_cfg.m_nConnectTimeoutMs);
  curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, std::max(1L, m_cfg.m_nIdleTimeoutMs / 1000));
  curl_easy_setopt(h, CURLOPT_SERVER_RESPONSE_TIMEOUT, std::max(1L, m_cfg.m_nIdleTimeoutMs / 1000));
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, WriteBody);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &response.m_strBody);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, ReadHeader);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &response);
  if (IsFtp(request.m_strUrl))
    curl_easy_setopt(h, CURLOPT_FTP_CREATE_MISSING_DIRS, static_cast<long>(CURLFTP_CREATE_DIR));
  if (request.m_bFollow) {
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(h, CURLOPT_MAXREDIRS, 8L);
  }
  if (!request.m_strRange.empty()) curl_easy_setopt(h, CURLOPT_RANGE, request.m_strRange.c_str());

  BodySource body{request.m_pBody ? request.m_pBody : "", request.m_hBodyFile, request.m_nBody, 0};
  if (body.m_hFile && SeekBody(&body, 0, SEEK_SET) != CURL_SEEKFUNC_OK) {
    response.m_eCode = CURLE_READ_ERROR;
    return;
  }
  const std::string& method = request.m_strMethod;
  if (method == "HEAD") {
    curl_easy_setopt(h, CURLOPT_NOBODY, 1L);
  } else if (method == "PUT") {
    curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(h, CURLOPT_READFUNCTION, ReadBody);
    curl_easy_setopt(h, CURLOPT_READDATA, &body);
    curl_easy_setopt(h, CURLOPT_SEEKFUNCTION, SeekBody);
    curl_easy_setopt(h, CURLOPT_SEEKDATA, &body);
    curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.m_nBody));
  } else if (method == "POST") {
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.m_pData);
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.m_nBody));
  } else if (method != "GET") {
    curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, method.c_str());
  }

  curl_slist* headers = nullptr;
  for (const std::string& line : request.m_headers) headers = curl_slist_append(headers, line.c_str());
  // "Expect:" (no 100-continue) is sent only unsigned: libcurl would sign the
  // empty header, which the store then misses.
  if (!IsFtp(request.m_strUrl) && !request.m_bSign) headers = curl_slist_append(headers, "Expect:");
  std::string sigv4;
  if (request.m_bSign) {
    // libcurl signs with the header's value as the payload hash; without the
    // header the store has nothing to check the signature against.
    headers = curl_slist_append(headers, "x-amz-content-sha256: UNSIGNED-PAYLOAD");
    if (!m_cfg.m_strToken.empty())
      headers = curl_slist_append(headers, ("x-amz-security-token: " + m_cfg.m_strToken).c_str());
    sigv4 = "aws:amz:" + m_cfg.m_strRegion + ":s3";
    curl_easy_setopt(h, CURLOPT_AWS_SIGV4, sigv4.c_str());
    curl_easy_setopt(h, CURLOPT_USERNAME, m_cfg.m_strAccessKey.c_str());
    curl_easy_setopt(h, CURLOPT_PASSWORD, m_cfg.m_strSecretKey.c_str());
  }
  if (!request.m_bSign && !request.m_strUser.empty()) {
    curl_easy_setopt(h, CURLOPT_USERNAME, request.m_strUser.c_str());
    curl_easy_setopt(h, CURLOPT_PASSWORD, request.m_strPassword.c_str());
  }
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);

  response.m_eCode = curl_easy_perform(h);
  long status = 0;
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
  response.m_nStatus = status;
  curl_off_t length = -1;
  if (curl_easy_getinfo(h, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) == CURLE_OK) response.m_nLength = length;
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, nullptr);
  curl_slist_free_all(headers);
  curl_easy_setopt(h, CURLOPT_USERNAME, nullptr);
  curl_easy_setopt(h, CURLOPT_PASSWORD, nullptr);
}

}  // namespace qltweb
