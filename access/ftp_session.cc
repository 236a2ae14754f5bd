#include "access/ftp_session.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <mutex>

#include "diagnostics/sdk_settings.h"
#include "platform/platform.h"

namespace {

// libcurl's largest receive buffer: fewer callbacks and wake-ups per byte.
constexpr long kReceiveBuffer = CURL_MAX_READ_SIZE;
// Upload buffer: large enough to keep loopback and LAN links busy.
constexpr long kSendBuffer = 256 * 1024;
// Bytes received ahead of the host's reads kept before the transfer pauses:
// pausing and resuming costs a few system calls, so it is done rarely.
constexpr size_t kSpillLimit = 4 * 1024 * 1024;
// A forward seek up to this far reads and discards instead of reconnecting.
constexpr ULONGLONG kDiscardLimit = 1024 * 1024;
// Longest single wait in Drive, so the watchdog and Abort are checked often
// enough even when libcurl has no timer of its own.
constexpr DWORD kMaxPollMs = 250;

bool ReadEnvNumber(const char* name, long* pValue) {
  const char* text = std::getenv(name);
  if (!text || !*text) return false;
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (end == text || value < 0) return false;
  *pValue = value;
  return true;
}

FtpOptions LoadOptions() {
  FtpOptions o;
  std::wstring ini = GetSettingsFilePath();
  if (!ini.empty()) {
    o.bPassive = GetPrivateProfileIntW(L"FTP", L"Passive", 0, ini.c_str()) != 0;
    int connect = static_cast<int>(GetPrivateProfileIntW(L"FTP", L"ConnectTimeoutMs", -1, ini.c_str()));
    int idle = static_cast<int>(GetPrivateProfileIntW(L"FTP", L"IdleTimeoutMs", -1, ini.c_str()));
    if (connect > 0) o.nConnectTimeoutMs = static_cast<DWORD>(connect);
    if (idle > 0) o.nIdleTimeoutMs = static_cast<DWORD>(idle);
  }
  long v = 0;
  if (ReadEnvNumber("QLTFS_FTP_PASSIVE", &v)) o.bPassive = v != 0;
  if (ReadEnvNumber("QLTFS_FTP_CONNECT_TIMEOUT_MS", &v) && v > 0) o.nConnectTimeoutMs = static_cast<DWORD>(v);
  if (ReadEnvNumber("QLTFS_FTP_IDLE_TIMEOUT_MS", &v) && v > 0) o.nIdleTimeoutMs = static_cast<DWORD>(v);
  return o;
}

DWORD ErrorFor(CURLcode result) {
  switch (result) {
    case CURLE_OK: return ERROR_SUCCESS;
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_FTP_ACCEPT_TIMEOUT: return QLT_ERROR_FTP_TIMEOUT;
    case CURLE_LOGIN_DENIED: return QLT_ERROR_FTP_LOGIN_FAILURE;
    case CURLE_COULDNT_CONNECT:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_WEIRD_SERVER_REPLY: return QLT_ERROR_FTP_CANNOT_CONNECT;
    case CURLE_REMOTE_FILE_NOT_FOUND: return ERROR_FILE_NOT_FOUND;
    case CURLE_REMOTE_DISK_FULL: return ERROR_DISK_FULL;
    case CURLE_OUT_OF_MEMORY: return ERROR_NOT_ENOUGH_MEMORY;
    case CURLE_ABORTED_BY_CALLBACK:
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING: return QLT_ERROR_FTP_CONNECTION_ABORTED;
    default: return QLT_ERROR_FTP_EXTENDED;
  }
}

// Percent-encodes one path segment for an FTP URL.
void AppendEncoded(std::string& url, const std::string& segment) {
  static const char kHex[] = "0123456789ABCDEF";
  for (unsigned char c : segment) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      url += static_cast<char>(c);
    } else {
      url += '%';
      url += kHex[c >> 4];
      url += kHex[c & 15];
    }
  }
}

bool EndsWith(std::wstring& text, const wchar_t* suffix) {
  size_t n = std::wcslen(suffix);
  if (text.size() < n) return false;
  for (size_t i = 0; i < n; ++i)
    if (static_cast<wchar_t>(std::towlower(static_cast<wint_t>(text[text.size() - n + i]))) != suffix[i]) return false;
  text.resize(text.size() - n);
  return true;
}

}  // namespace

FtpOptions FtpDefaultOptions() {
  static const FtpOptions options = LoadOptions();  // thread-safe static initialisation
  return options;
}

bool FtpGlobalInit() {
  static std::once_flag once;
  static bool ok = false;
  std::call_once(once, [] { ok = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK; });
  return ok;
}

CFtpSession::CFtpSession() = default;

CFtpSession::~CFtpSession() { LogOut(); }

void CFtpSession::FailWith(CURLcode result) { SetLastError(ErrorFor(result)); }

void CFtpSession::LogOut() {
  StopTransfer();
  if (m_pEasy) curl_easy_cleanup(m_pEasy);
  if (m_pMulti) curl_multi_cleanup(m_pMulti);  // closes the cached connections
  m_pEasy = nullptr;
  m_pMulti = nullptr;
  m_eMode = Mode::kNone;
  m_strPassword.assign(m_strPassword.size(), '\0');
  m_strPassword.clear();
}

BOOL CFtpSession::LogIn(const std::wstring& host, const std::wstring& user, const std::wstring& password, int port) {
  LogOut();
  m_bAbort.store(false, std::memory_order_relaxed);
  if (!FtpGlobalInit()) {
    SetLastError(QLT_ERROR_FTP_CANNOT_CONNECT);
    return FALSE;
  }
  m_login = m_options;
  std::wstring name = host;
  if (EndsWith(name, L";passive")) m_login.bPassive = true;
  if (EndsWith(name, L";active")) m_login.bPassive = false;
  std::string h = QltWideToUtf8(name);
  if (h.empty()) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (h.find(':') != std::string::npos && h.front() != '[') h = "[" + h + "]";
  int p = port & 0xFFFF;
  m_strBaseUrl = "ftp://" + h + ":" + std::to_string(p == 0 ? 21 : p) + "/";
  m_strUser = QltWideToUtf8(user);
  m_strPassword = QltWideToUtf8(password);

  m_pMulti = curl_multi_init();
  m_pEasy = curl_easy_init();
  if (!m_pMulti || !m_pEasy) {
    LogOut();
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
  // Logging in without a transfer: the connection stays cached for the file.
  if (!Start(m_strBaseUrl, Mode::kNone, 0, true)) {
    LogOut();
    return FALSE;
  }
  Drive([] { return false; });
  if (m_eResult != CURLE_OK) {
    CURLcode result = m_eResult;
    LogOut();
    FailWith(result);
    return FALSE;
  }
  return TRUE;
}

std::string CFtpSession::FileUrl(const std::wstring& path) const {
  std::string p = QltWideToUtf8(path);
  std::replace(p.begin(), p.end(), '\\', '/');
  std::string url = m_strBaseUrl;
  size_t i = 0;
  if (!p.empty() && p[0] == '/') {  // absolute path: "%2F" makes libcurl start at the root
    url += "%2F";
    i = 1;
  }
  while (i <= p.size()) {
    size_t slash = p.find('/', i);
    if (slash == std::string::npos) slash = p.size();
    AppendEncoded(url, p.substr(i, slash - i));
    if (slash < p.size()) url += '/';
    i = slash + 1;
  }
  return url;
}

bool CFtpSession::Start(const std::string& url, Mode mode, ULONGLONG offset, bool bNoBody) {
  StopTransfer();
  CURL* e = m_pEasy;
  curl_easy_reset(e);
  curl_easy_setopt(e, CURLOPT_URL, url.c_str());
  curl_easy_setopt(e, CURLOPT_USERNAME, m_strUser.c_str());
  curl_easy_setopt(e, CURLOPT_PASSWORD, m_strPassword.c_str());
  curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "ftp");
  curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(m_login.nConnectTimeoutMs));
  curl_easy_setopt(e, CURLOPT_ACCEPTTIMEOUT_MS, static_cast<long>(m_login.nIdleTimeoutMs));
  curl_easy_setopt(e, CURLOPT_SERVER_RESPONSE_TIMEOUT, static_cast<long>((m_login.nIdleTimeoutMs + 999) / 1000));
  if (!m_login.bPassive) curl_easy_setopt(e, CURLOPT_FTPPORT, "-");
  curl_easy_setopt(e, CURLOPT_BUFFERSIZE, kReceiveBuffer);
  curl_easy_setopt(e, CURLOPT_UPLOAD_BUFFERSIZE, kSendBuffer);
  curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &CFtpSession::OnData);
  curl_easy_setopt(e, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(e, CURLOPT_READFUNCTION, &CFtpSession::OnSend);
  curl_easy_setopt(e, CURLOPT_READDATA, this);
  if (bNoBody) curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
  if (mode == Mode::kRead && offset > 0)
    curl_easy_setopt(e, CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(offset));
  if (mode == Mode::kWrite) {
    curl_easy_setopt(e, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(e, CURLOPT_FTP_CREATE_MISSING_DIRS, static_cast<long>(CURLFTP_CREATE_DIR_RETRY));
  }
  m_bPaused = false;
  m_bDone = false;
  m_eResult = CURLE_OK;
  if (curl_multi_add_handle(m_pMulti, e) != CURLM_OK) {
    m_bDone = true;
    m_eResult = CURLE_OUT_OF_MEMORY;
    FailWith(m_eResult);
    return false;
  }
  m_bAdded = true;
  return true;
}

void CFtpSession::Finish(CURLcode result) {
  if (m_bAdded) curl_multi_remove_handle(m_pMulti, m_pEasy);
  m_bAdded = false;
  m_bDone = true;
  m_eResult = result;
}

void CFtpSession::StopTransfer() {
  if (m_bAdded) Finish(CURLE_ABORTED_BY_CALLBACK);
  m_spill.clear();
  m_nSpillPos = 0;
  m_pDst = nullptr;
  m_nNeed = 0;
  m_pSrc = nullptr;
  m_nSrcLeft = 0;
  m_bEof = false;
  m_bSendAsked = false;
}

template <class Pred>
void CFtpSession::Drive(Pred satisfied) {
  ULONGLONG mark = m_nMoved;
  ULONGLONG since = GetTickCount64();
  while (!m_bDone && !satisfied()) {
    if (m_bAbort.load(std::memory_order_relaxed)) {
      Finish(CURLE_ABORTED_BY_CALLBACK);
      return;
    }
    int running = 0;
    if (curl_multi_perform(m_pMulti, &running) != CURLM_OK) {
      Finish(CURLE_SEND_ERROR);
      return;
    }
    int queued = 0;
    while (CURLMsg* msg = curl_multi_info_read(m_pMulti, &queued)) {
      if (msg->msg == CURLMSG_DONE && msg->easy_handle == m_pEasy) Finish(msg->data.result);
    }
    if (m_bDone || satisfied()) return;
    ULONGLONG now = GetTickCount64();
    if (m_nMoved != mark) {
      mark = m_nMoved;
      since = now;
    } else if (now - since >= m_login.nIdleTimeoutMs) {
      Finish(CURLE_OPERATION_TIMEDOUT);
      return;
    }
    ULONGLONG left = m_login.nIdleTimeoutMs - (now - since);
    curl_multi_poll(m_pMulti, nullptr, 0, static_cast<int>(std::min<ULONGLONG>(left, kMaxPollMs)), nullptr);
  }
}

void CFtpSession::Abort() {
  m_bAbort.store(true, std::memory_order_relaxed);
  if (m_pMulti) curl_multi_wakeup(m_pMulti);
}

size_t CFtpSession::OnData(char* data, size_t size, size_t n, void* self) {
  auto* s = static_cast<CFtpSession*>(self);
  size_t len = size * n;
  size_t unread = s->m_spill.size() - s->m_nSpillPos;
  if (s->m_nNeed == 0 && unread >= kSpillLimit) {
    s->m_bPaused = true;  // enough is waiting: keep these bytes in libcurl
    return CURL_WRITEFUNC_PAUSE;
  }
  size_t take = std::min(len, s->m_nNeed);
  if (take > 0) {
    if (s->m_pDst) {
      std::memcpy(s->m_pDst, data, take);
      s->m_pDst += take;
    }
    s->m_nNeed -= take;
  }
  if (take < len) {
    try {
      if (s->m_nSpillPos > 0 && s->m_nSpillPos >= unread) {
        // Drop the bytes already read; moving the unread rest costs no more
        // than what was read since the last time.
        s->m_spill.erase(s->m_spill.begin(), s->m_spill.begin() + static_cast<std::ptrdiff_t>(s->m_nSpillPos));
        s->m_nSpillPos = 0;
      }
      s->m_spill.insert(s->m_spill.end(), data + take, data + len);
    } catch (...) {
      return 0;  // out of memory: libcurl ends the transfer with a write error
    }
  }
  s->m_nMoved += len;
  return len;
}

size_t CFtpSession::OnSend(char* buf, size_t size, size_t n, void* self) {
  auto* s = static_cast<CFtpSession*>(self);
  s->m_bSendAsked = true;
  if (s->m_nSrcLeft == 0) {
    if (s->m_bEof) return 0;
    s->m_bPaused = true;
    return CURL_READFUNC_PAUSE;
  }
  size_t take = std::min(size * n, s->m_nSrcLeft);
  std::memcpy(buf, s->m_pSrc, take);
  s->m_pSrc += take;
  s->m_nSrcLeft -= take;
  s->m_nMoved += take;
  return take;
}

bool CFtpSession::PrepareOpen(const std::wstring& path) {
  StopTransfer();
  m_eMode = Mode::kNone;
  m_bAbort.store(false, std::memory_order_relaxed);
  if (!m_pMulti) {
    SetLastError(QLT_ERROR_FTP_CANNOT_CONNECT);
    return false;
  }
  if (path.empty() || path.back() == L'/' || path.back() == L'\\') {
    SetLastError(ERROR_INVALID_NAME);  // a directory, not a file
    return false;
  }
  m_strFileUrl = FileUrl(path);
  return true;
}

BOOL CFtpSession::OpenRead(const std::wstring& path, ULONGLONG* pSize) {
  if (!PrepareOpen(path)) return FALSE;
  if (!Start(m_strFileUrl, Mode::kRead, 0, false)) return FALSE;
  // The first bytes (kept in the spill) or the end prove that the file exists.
  Drive([this] { return m_spill.size() > m_nSpillPos; });
  // A transfer that failed after sending data still opened the file: its
  // reads deliver those bytes, then fail.
  if (m_bDone && m_eResult != CURLE_OK && m_spill.size() == m_nSpillPos) {
    FailWith(m_eResult);
    return FALSE;
  }
  curl_off_t size = -1;
  curl_easy_getinfo(m_pEasy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &size);
  // An unknown size (no SIZE support) never makes a seek look past the end.
  m_nSize = size >= 0 ? static_cast<ULONGLONG>(size) : m_bDone ? m_spill.size() : ~0ULL;
  m_nPos = 0;
  m_eMode = Mode::kRead;
  if (pSize) *pSize = m_nSize == ~0ULL ? 0 : m_nSize;
  return TRUE;
}

LONG CFtpSession::Read(void* dst, LONG count) {
  if (m_eMode != Mode::kRead || count < 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return -1;
  }
  auto want = static_cast<size_t>(count);
  size_t got = std::min(want, m_spill.size() - m_nSpillPos);
  if (got > 0) {
    if (dst) std::memcpy(dst, m_spill.data() + m_nSpillPos, got);
    m_nSpillPos += got;
  }
  if (got < want && !m_bDone) {
    m_pDst = dst ? static_cast<char*>(dst) + got : nullptr;
    m_nNeed = want - got;
    if (m_bPaused) {
      m_bPaused = false;
      curl_easy_pause(m_pEasy, CURLPAUSE_CONT);  // may deliver the held bytes at once
    }
    Drive([this] { return m_nNeed == 0; });
    got = want - m_nNeed;
    m_pDst = nullptr;
    m_nNeed = 0;
  }
  if (got < want && m_bDone && m_eResult != CURLE_OK) {
    // Failed before the count came: the bytes taken are given up and the
    // position stays, so a seek to it restarts the download cleanly.
    FailWith(m_eResult);
    return -1;
  }
  m_nPos += got;
  return static_cast<LONG>(got);
}

LONG CFtpSession::ReadSome(void* dst, LONG count) {
  if (m_eMode != Mode::kRead || count < 0 || !dst) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return -1;
  }
  auto want = static_cast<size_t>(count);
  size_t got = std::min(want, m_spill.size() - m_nSpillPos);
  if (got > 0) {
    std::memcpy(dst, m_spill.data() + m_nSpillPos, got);
    m_nSpillPos += got;
  } else if (want > 0 && !m_bDone) {
    m_pDst = static_cast<char*>(dst);
    m_nNeed = want;
    if (m_bPaused) {
      m_bPaused = false;
      curl_easy_pause(m_pEasy, CURLPAUSE_CONT);
    }
    // Until a receive delivered something: each receive's bytes are handed
    // over whole, never byte by byte.
    Drive([this, want] { return m_nNeed < want; });
    got = want - m_nNeed;
    m_pDst = nullptr;
    m_nNeed = 0;
  }
  if (got == 0 && want > 0 && m_bDone && m_eResult != CURLE_OK) {
    FailWith(m_eResult);
    return -1;
  }
  m_nPos += got;
  return static_cast<LONG>(got);
}

BOOL CFtpSession::Seek(ULONGLONG pos) {
  if (m_eMode != Mode::kRead) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  // The running download can serve the new position only if it has not
  // failed and no abort is pending; otherwise it restarts.
  bool alive = (!m_bDone || m_eResult == CURLE_OK) && !m_bAbort.load(std::memory_order_relaxed);
  if (pos == m_nPos && (alive || pos >= m_nSize)) return TRUE;
  if (alive && pos > m_nPos && pos - m_nPos <= kDiscardLimit) {
    ULONGLONG step = pos - m_nPos;
    LONG got = Read(nullptr, static_cast<LONG>(step));
    if (got >= 0 && static_cast<ULONGLONG>(got) == step) return TRUE;
  }
  StopTransfer();
  m_bAbort.store(false, std::memory_order_relaxed);
  m_nPos = pos;
  if (pos >= m_nSize) {  // nothing to transfer: reads give 0
    m_bDone = true;
    m_eResult = CURLE_OK;
    return TRUE;
  }
  return Start(m_strFileUrl, Mode::kRead, pos, false) ? TRUE : FALSE;
}

BOOL CFtpSession::OpenWrite(const std::wstring& path) {
  if (!PrepareOpen(path)) return FALSE;
  if (!Start(m_strFileUrl, Mode::kWrite, 0, false)) return FALSE;
  // libcurl asks for the first bytes once the server has accepted the upload.
  Drive([this] { return m_bSendAsked; });
  if (!m_bSendAsked) {
    CURLcode result = m_bDone ? m_eResult : CURLE_OPERATION_TIMEDOUT;
    StopTransfer();
    FailWith(result == CURLE_OK ? CURLE_UPLOAD_FAILED : result);
    return FALSE;
  }
  m_nPos = 0;
  m_eMode = Mode::kWrite;
  return TRUE;
}

BOOL CFtpSession::Write(const void* src, LONG count) {
  if (m_eMode != Mode::kWrite || !src || count < 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (m_bDone) {
    FailWith(m_eResult == CURLE_OK ? CURLE_UPLOAD_FAILED : m_eResult);
    return FALSE;
  }
  m_pSrc = static_cast<const char*>(src);
  m_nSrcLeft = static_cast<size_t>(count);
  if (m_bPaused) {
    m_bPaused = false;
    curl_easy_pause(m_pEasy, CURLPAUSE_CONT);
  }
  // Until libcurl asks for more: then everything given so far is on its way
  // in the socket, and the link does not idle while the caller prepares the
  // next bytes.
  Drive([this] { return m_nSrcLeft == 0 && m_bPaused; });
  bool ok = m_nSrcLeft == 0;
  m_nPos += static_cast<size_t>(count) - m_nSrcLeft;
  m_pSrc = nullptr;
  m_nSrcLeft = 0;
  if (!ok) {
    FailWith(m_bDone && m_eResult != CURLE_OK ? m_eResult : CURLE_UPLOAD_FAILED);
    return FALSE;
  }
  return TRUE;
}

BOOL CFtpSession::Close() {
  BOOL ok = TRUE;
  if (m_eMode == Mode::kWrite) {
    if (!m_bDone) {
      m_bEof = true;
      if (m_bPaused) {
        m_bPaused = false;
        curl_easy_pause(m_pEasy, CURLPAUSE_CONT);
      }
      Drive([] { return false; });
    }
    if (m_eResult != CURLE_OK) {
      FailWith(m_eResult);
      ok = FALSE;
    }
  }
  StopTransfer();
  m_eMode = Mode::kNone;
  return ok;
}
