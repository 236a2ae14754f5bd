#include "companions/logbook/log_store.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <new>
#include <string>

#include "platform/platform.h"

namespace qlt::logbook {
namespace {

constexpr size_t kDefaultMaxBytes = 10 * 1024 * 1024;
constexpr size_t kDefaultMaxFiles = 5;
// After a log file could not be opened, lines for it are dropped for this
// long before the next attempt. Logging never slows the operation that it
// records: without the pause every line would try again, and the file
// sink's own open waits between its retries.
constexpr ULONGLONG kRetryAfterFailureMs = 30000;

// Loggers by file path.
struct Store {
  Store() { InitializeCriticalSection(&m_cs); }
  CRITICAL_SECTION m_cs;
  std::map<std::string, std::weak_ptr<spdlog::logger>> m_mapLogs GUARDED_BY(m_cs);
  // Path -> the GetTickCount64 value from which it is tried again.
  std::map<std::string, ULONGLONG> m_mapRetryAt GUARDED_BY(m_cs);
  size_t m_nMaxBytes GUARDED_BY(m_cs) = kDefaultMaxBytes;
  size_t m_nMaxFiles GUARDED_BY(m_cs) = kDefaultMaxFiles;
};

// Made when the library loads and destroyed when it unloads, after the
// static objects of every library and executable that depends on it.
Store g_store;

Store& TheStore() { return g_store; }

// Native directory of this library's own file ("" when it cannot be told).
std::string FindLibraryDirectory() {
  HMODULE hSelf = QltModuleFromAddress(reinterpret_cast<const void*>(&LogFilePathFor));
  wchar_t szFile[4096];
  DWORD n = hSelf ? GetModuleFileNameW(hSelf, szFile, sizeof(szFile) / sizeof(szFile[0])) : 0;
  if (n == 0) return std::string();
  std::wstring strFile(szFile, n);
  size_t nSlash = strFile.find_last_of(L'\\');
  if (nSlash == std::wstring::npos) return std::string();
  return QltNativePath(strFile.substr(0, nSlash).c_str());
}

// The library's directory ("." when it cannot be told), found once. Kept in
// trivially destructible storage so that a log written from a static
// destructor at exit still finds it.
const char* LibraryDirectory() {
  static std::once_flag s_once;
  static char s_szDir[4096] = ".";
  std::call_once(s_once, [] {
    std::string strDir = FindLibraryDirectory();
    if (!strDir.empty() && strDir.size() < sizeof(s_szDir)) std::memcpy(s_szDir, strDir.c_str(), strDir.size() + 1);
  });
  return s_szDir;
}

void ReportLogError(const std::string& strWhat) { OutputDebugStringA(("QltLogBookU: " + strWhat + "\n").c_str()); }

// Makes the folders of strPath and the file itself through the platform's
// calls, which fail at once (no waiting between retries). True when the file
// can be written; otherwise false with *pError set.
bool PrepareLogFile(const std::string& strPath, DWORD* pError) {
  std::wstring wstrPath = QltUtf8ToWide(strPath);
  if (wstrPath.empty()) {
    *pError = GetLastError();
    return false;
  }
  for (size_t nSlash = wstrPath.find(L'/', 1); nSlash != std::wstring::npos; nSlash = wstrPath.find(L'/', nSlash + 1)) {
    std::wstring wstrDir = wstrPath.substr(0, nSlash);
    if (GetFileAttributesW(wstrDir.c_str()) == INVALID_FILE_ATTRIBUTES && !CreateDirectoryW(wstrDir.c_str(), nullptr) &&
        GetLastError() == ERROR_NOT_ENOUGH_MEMORY) {
      *pError = ERROR_NOT_ENOUGH_MEMORY;
      return false;
    }
  }
  HANDLE h = CreateFileW(wstrPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    *pError = GetLastError();
    return false;
  }
  CloseHandle(h);
  return true;
}

}  // namespace

std::string LogFilePathFor(const std::string& strName) {
  const char* pszRoot = std::getenv("QLTFS_LOG_ROOT");
  std::string strRoot;
  if (pszRoot && *pszRoot) {
    strRoot = pszRoot;
  } else {
    strRoot = std::string(LibraryDirectory()) + "/sdk-log";
  }
  return strRoot + "/" + strName + "/" + strName + ".log";
}

std::shared_ptr<spdlog::logger> OpenSharedLog(const std::string& strName, const std::string& strPath) {
  Store& store = TheStore();
  CAutoLock lock(&store.m_cs);
  for (auto it = store.m_mapLogs.begin(); it != store.m_mapLogs.end();) {
    it = it->second.expired() ? store.m_mapLogs.erase(it) : std::next(it);
  }
  auto found = store.m_mapLogs.find(strPath);
  if (found != store.m_mapLogs.end()) {
    if (auto pLogger = found->second.lock()) return pLogger;
  }
  auto retry = store.m_mapRetryAt.find(strPath);
  if (retry != store.m_mapRetryAt.end()) {
    if (GetTickCount64() < retry->second) return nullptr;
    store.m_mapRetryAt.erase(retry);
  }
  DWORD dwError = 0;
  if (!PrepareLogFile(strPath, &dwError)) {
    // Out of memory is passing; a file that cannot be made is not.
    if (dwError != ERROR_NOT_ENOUGH_MEMORY) store.m_mapRetryAt[strPath] = GetTickCount64() + kRetryAfterFailureMs;
    ReportLogError("cannot open " + strPath + ": error " + std::to_string(dwError));
    return nullptr;
  }
  try {
    auto pSink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(strPath, store.m_nMaxBytes, store.m_nMaxFiles);
    // Not registered with spdlog's global registry: a host using spdlog for
    // itself keeps its own names.
    auto pLogger = std::make_shared<spdlog::logger>(strName, std::move(pSink));
    pLogger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%t] %v");
    pLogger->set_level(spdlog::level::trace);
    // Lines are rare (slow writes, failed creates) and wanted at once by
    // whoever tails the file, so each one is flushed as it is written.
    pLogger->flush_on(spdlog::level::trace);
    pLogger->set_error_handler([](const std::string& strMsg) { ReportLogError(strMsg); });
    store.m_mapLogs[strPath] = pLogger;
    return pLogger;
  } catch (const std::bad_alloc&) {
    return nullptr;
  } catch (const std::exception& e) {
    store.m_mapRetryAt[strPath] = GetTickCount64() + kRetryAfterFailureMs;
    ReportLogError(std::string("cannot open ") + strPath + ": " + e.what());
    return nullptr;
  }
}

void SetRotation(size_t nMaxBytes, size_t nMaxFiles) {
  Store& store = TheStore();
  CAutoLock lock(&store.m_cs);
  store.m_nMaxBytes = nMaxBytes;
  store.m_nMaxFiles = nMaxFiles;
}

}  // namespace qlt::logbook
