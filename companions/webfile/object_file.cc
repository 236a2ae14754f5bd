#include "companions/webfile/object_file.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "companions/webfile/s3_xml.h"
#include "platform/platform.h"

namespace qltweb {

int64_t SeekTarget(int64_t pos, int64_t size, int64_t nDistance, int nMethod) {
  int64_t base = nMethod == FILE_BEGIN ? 0 : nMethod == FILE_CURRENT ? pos : nMethod == FILE_END ? size : -2;
  if (base == -2) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return -1;
  }
  if ((nDistance < 0 && base + nDistance < 0) || (nDistance > 0 && base > INT64_MAX - nDistance)) {
    SetLastError(nDistance < 0 ? ERROR_NEGATIVE_SEEK : ERROR_INVALID_PARAMETER);
    return -1;
  }
  return base + nDistance;
}

std::string CObjectFile::ObjectUrl(const WebConfig& cfg, const std::string& bucket, const std::string& key) {
  std::string path = "/" + UriEncode(key, true);
  if (cfg.m_strEndpoint.empty()) {
    std::string host = "s3." + cfg.m_strRegion + ".amazonaws.com";
    return cfg.m_bPathStyle ? "https://" + host + "/" + bucket + path : "https://" + bucket + "." + host + path;
  }
  if (cfg.m_bPathStyle) return cfg.m_strEndpoint + "/" + UriEncode(bucket, false) + path;
  size_t sep = cfg.m_strEndpoint.find("://");
  if (sep == std::string::npos) return cfg.m_strEndpoint + "/" + bucket + path;
  return cfg.m_strEndpoint.substr(0, sep + 3) + bucket + "." + cfg.m_strEndpoint.substr(sep + 3) + path;
}

CObjectFile::CObjectFile(const WebConfig& cfg, const WebUrl& url, const WebFileOptions& options)
    : m_cfg(cfg), m_url(url), m_options(options), m_client(cfg) {
  if (url.m_eScheme == UrlScheme::kOss) {
    m_strUrl = ObjectUrl(cfg, url.m_strHost, url.m_strPath);
  } else {
    m_strUrl = (url.m_eScheme == UrlScheme::kHttps ? "https://" : "http://") + url.m_strHost +
               (url.m_nPort ? ":" + std::to_string(url.m_nPort) : std::string()) + url.m_strPath;
  }
}

CObjectFile::~CObjectFile() { Abandon(); }

bool CObjectFile::Fail(DWORD error) {
  SetLastError(error);
  return false;
}

bool CObjectFile::Open() {
  if (m_options.m_bReadOnly) {
    WebRequest head;
    head.m_strMethod = "HEAD";
    head.m_strUrl = m_strUrl;
    head.m_bSign = Signed();
    head.m_bFollow = !head.m_bSign;
    WebResponse response;
    if (!m_client.Perform(head, response)) return Fail(m_client.Error());
    if (response.m_nLength < 0) {  // no length in the HEAD answer: ask for the first byte
      WebRequest get = head;
      get.m_strMethod = "GET";
      get.m_strRange = "0-0";
      if (!m_client.Perform(get, response)) return Fail(m_client.Error());
      response.m_nLength = response.m_nTotal >= 0 ? response.m_nTotal : static_cast<int64_t>(response.m_strBody.size());
    }
    m_nSize = static_cast<uint64_t>(response.m_nLength);
    m_pReader = std::make_unique<CRangeReader>(m_cfg, m_strUrl, head.m_bSign, m_nSize);
    m_bOpen = true;
    return true;
  }
  if (m_url.m_eScheme != UrlScheme::kOss) return Fail(ERROR_NOT_SUPPORTED);  // HTTP files are read only
  if (!m_cfg.HasCredentials()) return Fail(ERROR_NOT_AUTHENTICATED);
  // A HEAD of the bucket tells a missing bucket or refused credentials before
  // the host writes anything.
  WebRequest head;
  head.m_strMethod = "HEAD";
  head.m_strUrl = ObjectUrl(m_cfg, m_url.m_strHost, "");
  head.m_bSign = true;
  WebResponse response;
  if (!m_client.Perform(head, response)) {
    DWORD error = m_client.Error();
    return Fail(error == ERROR_FILE_NOT_FOUND ? ERROR_PATH_NOT_FOUND : error);
  }
  m_bOpen = true;
  return true;
}

int64_t CObjectFile::GetSize() {
  if (!m_bOpen) return Fail(ERROR_INVALID_HANDLE), -1;
  return static_cast<int64_t>(m_nSize);
}

int64_t CObjectFile::Seek(int64_t nDistance, int nMethod) {
  if (!m_bOpen) return Fail(ERROR_INVALID_HANDLE), -1;
  int64_t target = SeekTarget(static_cast<int64_t>(m_nPos), static_cast<int64_t>(m_nSize), nDistance, nMethod);
  if (target < 0) return -1;
  uint64_t to = static_cast<uint64_t>(target);
  if (!m_options.m_bReadOnly && to >= PartSize() &&
      to < static_cast<uint64_t>(m_nCurrentPart - 1) * m_cfg.m_nPartSize) {
    return Fail(ERROR_SEEK), -1;  // that part is on its way to the store: it cannot change any more
  }
  m_nPos = to;
  return target;
}

int CObjectFile::Read(void* pBuffer, DWORD nCount) {
  if (!m_bOpen) return Fail(ERROR_INVALID_HANDLE), 0;
  if (!pBuffer && nCount) return Fail(ERROR_INVALID_PARAMETER), 0;
  nCount = std::min<DWORD>(nCount, INT_MAX);
  if (!m_options.m_bReadOnly) {  // reading back what is still in memory
    uint64_t currentStart = static_cast<uint64_t>(m_nCurrentPart - 1) * m_cfg.m_nPartSize;
    const std::vector<char>* source = nullptr;
    uint64_t start = 0;
    if (m_nPos < m_first.size()) {
      source = &m_first;
    } else if (m_nPos >= currentStart && m_nPos < currentStart + m_current.size()) {
      source = &m_current;
      start = currentStart;
    }
    if (!source) return Fail(m_nPos >= m_nSize ? ERROR_HANDLE_EOF : ERROR_NOT_SUPPORTED), 0;
    size_t n = std::min<size_t>(nCount, source->size() - (m_nPos - start));
    std::memcpy(pBuffer, source->data() + (m_nPos - start), n);
    m_nPos += n;
    return static_cast<int>(n);
  }
  if (m_nPos >= m_nSize) return Fail(ERROR_HANDLE_EOF), 0;
  size_t nDone = 0;  // across chunk boundaries, up to nCount or the end
  while (nDone < nCount && m_nPos < m_nSize) {
    size_t n = m_pReader->Read(m_nPos, static_cast<char*>(pBuffer) + nDone, nCount - nDone);
    if (n == 0) break;
    nDone += n;
    m_nPos += n;
  }
  return static_cast<int>(nDone);
}

int CObjectFile::Write(const void* pBuffer, DWORD nCount) {
  if (!m_bOpen) return Fail(ERROR_INVALID_HANDLE), 0;
  if (m_options.m_bReadOnly) return Fail(ERROR_ACCESS_DENIED), 0;
  if (m_dwFailed) return Fail(m_dwFailed), 0;
  if (!pBuffer || nCount == 0 || nCount > INT_MAX) return Fail(ERROR_INVALID_PARAMETER), 0;
  const char* p = static_cast<const char*>(pBuffer);
  uint64_t nLeft = nCount;
  const uint64_t nPart = PartSize();
  while (nLeft) {
    if (m_nPos < nPart) {
      uint64_t n = std::min(nLeft, nPart - m_nPos);
      if (m_options.m_bPutMode && m_nPos + n > m_cfg.m_nMemoryLimit) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY), 0;  // one PUT sends from memory: the object must fit
      }
      if (m_first.size() < m_nPos + n) m_first.resize(static_cast<size_t>(m_nPos + n));
      std::memcpy(m_first.data() + m_nPos, p, static_cast<size_t>(n));
      p += n;
      nLeft -= n;
      m_nPos += n;
    } else {
      uint64_t part = m_nPos / nPart + 1;
      if (part < static_cast<uint64_t>(m_nCurrentPart)) return Fail(ERROR_SEEK), 0;
      if (part > static_cast<uint64_t>(m_nCurrentPart)) {
        if (!SendCurrentPart()) return 0;
        continue;
      }
      uint64_t offset = m_nPos - (part - 1) * nPart;
      uint64_t n = std::min(nLeft, nPart - offset);
      if (m_current.capacity() < nPart) m_current.reserve(static_cast<size_t>(nPart));  // one allocation per part
      if (m_current.size() < offset + n) m_current.resize(static_cast<size_t>(offset + n));
      std::memcpy(m_current.data() + offset, p, static_cast<size_t>(n));
      p += n;
      nLeft -= n;
      m_nPos += n;
    }
    m_nSize = std::max(m_nSize, m_nPos);
  }
  return static_cast<int>(nCount);
}

bool CObjectFile::StartUpload() {
  WebRequest post;
  post.m_strMethod = "POST";
  post.m_strUrl = m_strUrl + "?uploads=";  // "=" kept: libcurl signs a bare "?uploads" wrongly
  post.m_bSign = true;
  if (m_options.m_bPublic) post.m_headers.push_back("x-amz-acl: public-read");
  WebResponse response;
  if (!m_client.Perform(post, response, true)) return Fail(m_client.Error());
  m_strUploadId = XmlElementText(response.m_strBody, "UploadId");
  if (m_strUploadId.empty()) return Fail(ERROR_BAD_NET_RESP);
  m_pUploader = std::make_unique<CPartUploader>(m_cfg, m_strUrl, m_strUploadId);
  return true;
}

bool CObjectFile::SendCurrentPart() {
  if (m_strUploadId.empty() && !StartUpload()) {
    m_dwFailed = GetLastError();
    return false;
  }
  m_current.resize(static_cast<size_t>(m_cfg.m_nPartSize));  // a hole left by a seek reads as zeros
  std::vector<char> part;
  part.swap(m_current);
  if (!m_pUploader->Submit(m_nCurrentPart, std::move(part))) {
    m_dwFailed = m_pUploader->Error();
    return Fail(m_dwFailed);
  }
  ++m_nCurrentPart;
  return true;
}

bool CObjectFile::PutWhole() {
  m_first.resize(static_cast<size_t>(m_nSize));
  WebRequest put;
  put.m_strMethod = "PUT";
  put.m_strUrl = m_strUrl;
  put.m_pBody = m_first.data();
  put.m_nBody = m_first.size();
  put.m_bSign = true;
  if (m_options.m_bPublic) put.m_headers.push_back("x-amz-acl: public-read");
  WebResponse response;
  if (!m_client.Perform(put, response)) return Fail(m_client.Error());
  return true;
}

bool CObjectFile::CompleteUpload() {
  // The last part (possibly short) and the first (kept until now) go last.
  size_t nParts = static_cast<size_t>(m_nCurrentPart) - (m_current.empty() ? 1 : 0);
  if (!m_current.empty()) {
    std::vector<char> part;
    part.swap(m_current);
    if (!m_pUploader->Submit(m_nCurrentPart, std::move(part))) return Fail(m_pUploader->Error());
  }
  m_first.resize(static_cast<size_t>(m_cfg.m_nPartSize));
  if (!m_pUploader->Submit(1, std::move(m_first))) return Fail(m_pUploader->Error());
  m_first = std::vector<char>();
  if (!m_pUploader->Finish()) return Fail(m_pUploader->Error());
  std::map<int, std::string> parts = m_pUploader->Parts();
  if (parts.size() != nParts) return Fail(ERROR_BAD_NET_RESP);  // never complete an object with a part missing
  std::string xml = "<CompleteMultipartUpload>";
  for (const auto& [number, etag] : parts)
    xml += "<Part><PartNumber>" + std::to_string(number) + "</PartNumber><ETag>" + XmlEscape(etag) + "</ETag></Part>";
  xml += "</CompleteMultipartUpload>";
  WebRequest post;
  post.m_strMethod = "POST";
  post.m_strUrl = m_strUrl + "?uploadId=" + UriEncode(m_strUploadId, false);
  post.m_headers.push_back("Content-Type: application/xml");
  post.m_pBody = xml.data();
  post.m_nBody = xml.size();
  post.m_bSign = true;
  WebResponse response;
  if (!m_client.Perform(post, response, true)) return Fail(m_client.Error());
  m_strUploadId.clear();
  return true;
}

void CObjectFile::AbortUpload() {
  if (m_pUploader) m_pUploader->Stop();
  if (m_strUploadId.empty()) return;
  DWORD error = GetLastError();  // the news is the failure that led here
  WebRequest del;
  del.m_strMethod = "DELETE";
  del.m_strUrl = m_strUrl + "?uploadId=" + UriEncode(m_strUploadId, false);
  del.m_bSign = true;
  WebResponse response;
  m_client.Perform(del, response);
  m_strUploadId.clear();
  SetLastError(error);
}

int CObjectFile::Close() {
  if (!m_bOpen) return Fail(ERROR_INVALID_HANDLE), 0;
  m_bOpen = false;
  if (m_options.m_bReadOnly) {
    m_pReader.reset();
    return 1;
  }
  bool ok;
  if (m_dwFailed) {
    ok = Fail(m_dwFailed);
  } else if (m_strUploadId.empty() && m_current.empty()) {
    ok = PutWhole();  // the object never grew past its first part
  } else if (m_strUploadId.empty() && !StartUpload()) {
    ok = false;
  } else {
    ok = CompleteUpload();
  }
  if (!ok) AbortUpload();
  m_pUploader.reset();
  m_first = std::vector<char>();
  m_current = std::vector<char>();
  return ok ? 1 : 0;
}

void CObjectFile::Abandon() {
  if (!m_bOpen) return;
  m_bOpen = false;
  AbortUpload();
  m_pUploader.reset();
}

}  // namespace qltweb
