#include "companions/webfile/ftp_file.h"

#include <algorithm>
#include <atomic>
#include <climits>

#include "platform/platform.h"

namespace qltweb {

std::string CFtpFile::ServerUrl(const WebUrl& url, const std::string& path) {
  return "ftp://" + url.m_strHost + (url.m_nPort ? ":" + std::to_string(url.m_nPort) : std::string()) + path;
}

CFtpFile::CFtpFile(const WebConfig& cfg, const WebUrl& url) : m_url(url), m_client(cfg) {}

CFtpFile::~CFtpFile() { Abandon(); }

bool CFtpFile::Open() {
  WebRequest login;
  login.m_strMethod = "HEAD";
  login.m_strUrl = ServerUrl(m_url, "/");
  login.m_strUser = m_url.m_strUser;
  login.m_strPassword = m_url.m_strPassword;
  WebResponse response;
  if (!m_client.Perform(login, response)) {
    SetLastError(m_client.Error());
    return false;
  }
  static std::atomic<unsigned> s_nSerial{0};
  wchar_t dir[MAX_PATH + 1] = {};
  DWORD n = GetTempPathW(MAX_PATH, dir);
  if (n == 0 || n > MAX_PATH) return false;
  m_strSpool = std::wstring(dir, n) + L"qltweb-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
               std::to_wstring(s_nSerial.fetch_add(1) + 1) + L"-" + std::to_wstring(GetTickCount64()) + L".spool";
  m_hSpool = CreateFileW(m_strSpool.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  if (m_hSpool == INVALID_HANDLE_VALUE) {
    m_hSpool = nullptr;
    return false;
  }
  return true;
}

int64_t CFtpFile::GetSize() {
  if (!m_hSpool) return SetLastError(ERROR_INVALID_HANDLE), -1;
  return m_nSize;
}

int64_t CFtpFile::Seek(int64_t nDistance, int nMethod) {
  if (!m_hSpool) return SetLastError(ERROR_INVALID_HANDLE), -1;
  int64_t target = SeekTarget(m_nPos, m_nSize, nDistance, nMethod);
  if (target < 0) return -1;
  m_nPos = target;
  return target;
}

int CFtpFile::Read(void* pBuffer, DWORD nCount) {
  if (!m_hSpool) return SetLastError(ERROR_INVALID_HANDLE), 0;
  LARGE_INTEGER to;
  to.QuadPart = m_nPos;
  DWORD got = 0;
  if (!SetFilePointerEx(m_hSpool, to, nullptr, FILE_BEGIN) ||
      !ReadFile(m_hSpool, pBuffer, std::min<DWORD>(nCount, INT_MAX), &got, nullptr))
    return 0;
  if (got == 0) return SetLastError(ERROR_HANDLE_EOF), 0;
  m_nPos += got;
  return static_cast<int>(got);
}

int CFtpFile::Write(const void* pBuffer, DWORD nCount) {
  if (!m_hSpool) return SetLastError(ERROR_INVALID_HANDLE), 0;
  if (!pBuffer || nCount == 0 || nCount > INT_MAX) return SetLastError(ERROR_INVALID_PARAMETER), 0;
  LARGE_INTEGER to;
  to.QuadPart = m_nPos;
  DWORD written = 0;
  if (!SetFilePointerEx(m_hSpool, to, nullptr, FILE_BEGIN) ||
      !WriteFile(m_hSpool, pBuffer, nCount, &written, nullptr) || written != nCount)
    return 0;
  m_nPos += written;
  m_nSize = std::max(m_nSize, m_nPos);
  return static_cast<int>(written);
}

int CFtpFile::Close() {
  if (!m_hSpool) return SetLastError(ERROR_INVALID_HANDLE), 0;
  WebRequest put;
  put.m_strMethod = "PUT";
  put.m_strUrl = ServerUrl(m_url, m_url.m_strPath);
  put.m_strUser = m_url.m_strUser;
  put.m_strPassword = m_url.m_strPassword;
  put.m_hBodyFile = m_hSpool;
  put.m_nBody = static_cast<size_t>(m_nSize);
  WebResponse response;
  bool ok = m_client.Perform(put, response);
  DWORD error = m_client.Error();
  RemoveSpool();
  if (!ok) SetLastError(error);
  return ok ? 1 : 0;
}

void CFtpFile::Abandon() { RemoveSpool(); }

void CFtpFile::RemoveSpool() {
  if (!m_hSpool) return;
  DWORD error = GetLastError();
  CloseHandle(m_hSpool);
  m_hSpool = nullptr;
  DeleteFileW(m_strSpool.c_str());
  SetLastError(error);
}

}  // namespace qltweb
