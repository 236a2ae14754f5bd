#include "diagnostics/log_file_writer2.h"

#include <cwchar>
#include <map>

#include "platform/platform.h"

namespace {

constexpr int kOpenException = -128;

// Reports a contained exception to the debugger output with the thread's
// last error, which is read first so the report does not change it.
void ReportException(const wchar_t* what) {
  DWORD dwError = GetLastError();
  OutputDebugStringW(what);
  wchar_t code[48];
  swprintf(code, sizeof(code) / sizeof(code[0]), L"error code = %d", static_cast<int>(dwError));
  OutputDebugStringW(code);
}

// The directory part of path with its trailing backslash; empty when path
// has no backslash or only a leading one.
std::wstring DirectoryWithSlash(const std::wstring& path) {
  size_t slash = path.rfind(L'\\');
  if (slash == std::wstring::npos || slash == 0) return std::wstring();
  return path.substr(0, slash + 1);
}

// The N of "title[N].txt": leading decimal digits between the last '[' and
// the last ']', when the '[' is not the first character and a ']' exists;
// otherwise 0.
long long FamilyNumber(const std::wstring& name) {
  size_t open = name.rfind(L'[');
  size_t close = name.rfind(L']');
  if (open == std::wstring::npos || open == 0 || close == std::wstring::npos) return 0;
  long long n = 0;
  for (size_t i = open + 1; i < close && i < name.size() && name[i] >= L'0' && name[i] <= L'9'; ++i) {
    if (n < 1000000000000LL) n = n * 10 + (name[i] - L'0');
  }
  return n;
}

// Opens that failed, by path, for every writer of the process. An entry is
// written only on a failure path of the operation it records, but a log
// that cannot be opened (a folder the user may not write, a slow or gone
// network share) must not cost each failing operation another attempt: after
// a failed open the path is left alone for kRetryAfterFailureMs. Making the
// missing folder ends the pause at once, so the first entry after it is kept.
constexpr ULONGLONG kRetryAfterFailureMs = 30000;

struct FailedOpen {
  ULONGLONG retryAt;  // GetTickCount64 value from which an open is tried again
  bool bFolderWasMissing;
};

struct FailedOpens {
  FailedOpens() { InitializeCriticalSection(&lock); }
  CRITICAL_SECTION lock;
  std::map<std::wstring, FailedOpen> byPath GUARDED_BY(lock);
};

FailedOpens& Failures() {
  static FailedOpens* p = new FailedOpens;  // never destroyed: usable during exit
  return *p;
}

bool FolderExists(const std::wstring& path) {
  std::wstring dir = DirectoryWithSlash(path);
  if (dir.empty()) return true;
  DWORD attrs = GetFileAttributesW(dir.c_str());
  return attrs != INVALID_FILE_ATTRIBUTES && (attrs & FILE_ATTRIBUTE_DIRECTORY);
}

// True while path is paused after a failed open.
bool Paused(const std::wstring& path) {
  FailedOpens& f = Failures();
  CAutoLock g(&f.lock);
  auto it = f.byPath.find(path);
  if (it == f.byPath.end()) return false;
  if (GetTickCount64() < it->second.retryAt && !(it->second.bFolderWasMissing && FolderExists(path))) return true;
  f.byPath.erase(it);
  return false;
}

// Records the outcome of an open. Running out of memory is no reason to
// pause the log.
void RecordOpen(const std::wstring& path, bool bOpened, DWORD dwError) {
  FailedOpens& f = Failures();
  CAutoLock g(&f.lock);
  if (bOpened || dwError == ERROR_NOT_ENOUGH_MEMORY) {
    f.byPath.erase(path);
    return;
  }
  bool bFolderWasMissing = !FolderExists(path);
  f.byPath[path] = FailedOpen{GetTickCount64() + kRetryAfterFailureMs, bFolderWasMissing};
}

}  // namespace

CLogFileWriter2::CLogFileWriter2() { InitializeCriticalSection(&m_cs); }

CLogFileWriter2::~CLogFileWriter2() {
  {
    CAutoLock lock(&m_cs);
    m_file.Close();
    m_strCurrentPath.clear();
  }
  DeleteCriticalSection(&m_cs);
}

bool CLogFileWriter2::SetEnable(bool bEnable) {
  m_bEnabled.store(bEnable, std::memory_order_relaxed);
  return bEnable;
}

int CLogFileWriter2::SetOptions(const LogFileOptions& options) {
  if (!m_bEnabled.load(std::memory_order_relaxed)) return 0;
  CAutoLock lock(&m_cs);
  m_options = options;
  return 1;
}

int CLogFileWriter2::Open(const std::wstring& path) {
  if (!m_bEnabled.load(std::memory_order_relaxed)) return 0;
  std::wstring wanted = path;  // path may be m_strCurrentPath, which Close empties
  Close();
  CAutoLock lock(&m_cs);
  int result = 0;
  try {
    if (Paused(wanted)) return 0;
    SetLastError(ERROR_SUCCESS);
    result = m_options.bOverwrite ? OpenFileOverwrite(wanted) : OpenLastFile(wanted);
    RecordOpen(wanted, result >= 1, result == kOpenException ? ERROR_NOT_ENOUGH_MEMORY : GetLastError());
  } catch (...) {  // out of memory in the pause table: the open's result stands
  }
  if (result < 1) {
    m_file.Close();
    m_strCurrentPath.clear();
  } else {
    m_strCurrentPath = wanted;
    m_nUnflushedWrites = 0;
  }
  return result;
}

int CLogFileWriter2::OpenFileOverwrite(const std::wstring& path) {
  CAutoLock lock(&m_cs);
  try {
    std::wstring dir = DirectoryWithSlash(path);
    if (!dir.empty() && GetFileAttributesW(dir.c_str()) == INVALID_FILE_ATTRIBUTES) {
      CreateDirectoryW(dir.c_str(), nullptr);  // one level; a missing parent fails here silently
    }
    return m_file.Open(path, CLogTextFile::kCreateAlways);
  } catch (...) {
    ReportException(L"___CLogFileWriter2::OpenFileOverwrite exception____");
    m_file.Close();
    return kOpenException;
  }
}

int CLogFileWriter2::OpenLastFile(const std::wstring& path) {
  CAutoLock lock(&m_cs);
  try {
    std::wstring dir = DirectoryWithSlash(path);
    size_t slash = path.rfind(L'\\');
    std::wstring name = slash == std::wstring::npos ? path : path.substr(slash + 1);
    std::wstring title = name.size() > 4 ? name.substr(0, name.size() - 4) : std::wstring();
    std::wstring pattern = dir + title + L"*.txt";

    WIN32_FIND_DATAW data{};
    HANDLE hFind = FindFirstFileW(pattern.c_str(), &data);
    if (hFind == INVALID_HANDLE_VALUE) return m_file.Open(path, CLogTextFile::kCreateAlways);

    std::wstring choice = data.cFileName;
    long long nBest = 0;
    do {
      long long n = FamilyNumber(data.cFileName);
      if (n > nBest) {
        nBest = n;
        choice = data.cFileName;
      }
    } while (FindNextFileW(hFind, &data));
    FindClose(hFind);

    if (!m_file.Open(dir + choice, CLogTextFile::kOpenExisting)) return 0;
    m_file.SeekToEnd();
    return 1;
  } catch (...) {
    ReportException(L"___CLogFileWriter2::OpenLastFile exception____");
    m_file.Close();
    return kOpenException;
  }
}

int CLogFileWriter2::Write(const wchar_t* text, bool bFlushNow) {
  if (!m_bEnabled.load(std::memory_order_relaxed)) return 0;
  return WriteText(text ? std::wstring(text) : std::wstring(), bFlushNow);
}

int CLogFileWriter2::Write(const char* text, bool bFlushNow) {
  if (!m_bEnabled.load(std::memory_order_relaxed)) return 0;
  return WriteText(text ? QltUtf8ToWide(text) : std::wstring(), bFlushNow);
}

int CLogFileWriter2::WriteText(const std::wstring& text, bool bFlushNow) {
  CAutoLock lock(&m_cs);
  int result = 1;
  if (!m_file.IsOpen()) return result;
  try {
    m_file.WriteString(text);
    if (!bFlushNow && m_nUnflushedWrites < m_options.nFlushInterval) {
      ++m_nUnflushedWrites;
    } else {
      m_file.Flush();
      m_nUnflushedWrites = 0;
    }
    if (m_file.GetLength() >= static_cast<ULONGLONG>(static_cast<int64_t>(m_options.nSizeLimit))) {
      result = Open(m_strCurrentPath);
    }
  } catch (...) {
    ReportException(L"___CLogFileWriter2::Write exception____");
  }
  return result;
}

int CLogFileWriter2::Close() {
  if (!m_bEnabled.load(std::memory_order_relaxed)) return 0;
  CAutoLock lock(&m_cs);
  m_file.Close();
  m_strCurrentPath.clear();
  return 1;
}

std::wstring CLogFileWriter2::CurrentPath() {
  CAutoLock lock(&m_cs);
  return m_strCurrentPath;
}
