#include "companions/virtualfile/storage_root.h"

#include <cwchar>

#include "platform/platform.h"

namespace qvf {
namespace {

// Process-wide root state.
struct RootState {
  RootState() { InitializeCriticalSection(&m_cs); }
  CRITICAL_SECTION m_cs;
  bool m_bConfigRead GUARDED_BY(m_cs) = false;    // the ini file has been consulted
  std::wstring m_strConfigured GUARDED_BY(m_cs);  // from qltfsdk.ini, or kDefaultRoot
  std::wstring m_strOverride GUARDED_BY(m_cs);    // set by SetRoot; empty: none
};

RootState& State() {
  static RootState* pState = new RootState;  // never destroyed: usable during exit
  return *pState;
}

// qltfsdk.ini where the SDK itself reads its settings.
std::wstring SettingsFile() {
  return QltSettingsFile(QltModuleFromAddress(reinterpret_cast<const void*>(&SettingsFile)));
}

std::wstring ReadConfiguredRoot() {
  std::wstring ini = SettingsFile();
  if (ini.empty()) return kDefaultRoot;
  wchar_t buf[MAX_PATH + 1] = {};
  DWORD n = GetPrivateProfileStringW(L"VIRTUALFILE", L"Root", L"", buf, MAX_PATH + 1, ini.c_str());
  if (n == 0) return kDefaultRoot;
  std::wstring root(buf, n);
  while (root.size() > 1 && (root.back() == L'\\' || root.back() == L'/') && root[root.size() - 2] != L':') {
    root.pop_back();
  }
  return root;
}

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

}  // namespace

std::wstring CurrentRoot() {
  RootState& s = State();
  CAutoLock lock(&s.m_cs);
  if (!s.m_strOverride.empty()) return s.m_strOverride;
  if (!s.m_bConfigRead) {
    s.m_strConfigured = ReadConfiguredRoot();
    s.m_bConfigRead = true;
  }
  return s.m_strConfigured;
}

void SetRoot(const std::wstring& root) {
  RootState& s = State();
  CAutoLock lock(&s.m_cs);
  s.m_strOverride = root;
}

bool MapPath(const wchar_t* path, const std::wstring& root, std::wstring* out) {
  const wchar_t* lower = path ? wcsstr(path, L"qvf:\\") : nullptr;
  const wchar_t* upper = path ? wcsstr(path, L"QVF:\\") : nullptr;
  const wchar_t* prefix = lower && upper ? (lower < upper ? lower : upper) : (lower ? lower : upper);
  if (!prefix) {
    SetLastError(ERROR_INVALID_NAME);
    return false;
  }
  std::wstring mapped = root;
  bool bAny = false;
  const wchar_t* p = prefix + 5;
  while (*p) {
    while (IsSeparator(*p)) ++p;
    const wchar_t* start = p;
    while (*p && !IsSeparator(*p)) ++p;
    std::wstring part(start, p);
    if (part.empty()) break;
    if (part == L"." || part == L"..") {
      SetLastError(ERROR_INVALID_NAME);
      return false;
    }
    if (mapped.empty() || !IsSeparator(mapped.back())) mapped += L'\\';
    mapped += part;
    bAny = true;
  }
  if (!bAny) {
    SetLastError(ERROR_INVALID_NAME);
    return false;
  }
  *out = std::move(mapped);
  return true;
}

void MakeParentFolders(const std::wstring& file) {
  size_t slash = file.find_last_of(L"\\/");
  std::wstring dir = slash == std::wstring::npos ? std::wstring() : file.substr(0, slash);
  for (size_t i = 1; i <= dir.size(); ++i) {
    if (i < dir.size() && !IsSeparator(dir[i])) continue;
    std::wstring level = dir.substr(0, i);
    if (level.back() == L':') continue;  // a bare drive
    if (GetFileAttributesW(level.c_str()) == INVALID_FILE_ATTRIBUTES) CreateDirectoryW(level.c_str(), nullptr);
  }
}

}  // namespace qvf
