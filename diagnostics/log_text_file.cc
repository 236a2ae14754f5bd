#include "diagnostics/log_text_file.h"

#include "platform/platform.h"

namespace {

[[noreturn]] void ThrowLastError(const char* what) { throw CLogFileException(what, GetLastError()); }

}  // namespace

BOOL CLogTextFile::Open(const std::wstring& path, OpenMode mode) {
  Close();
  DWORD disposition = mode == kCreateAlways ? CREATE_ALWAYS : OPEN_EXISTING;
  HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return FALSE;
  m_hFile = h;
  return TRUE;
}

void CLogTextFile::WriteString(const std::wstring& text) {
  std::wstring line;
  line.reserve(text.size() + 8);
  for (wchar_t c : text) {
    if (c == L'\n') line.push_back(L'\r');
    line.push_back(c);
  }
  m_strPending += QltWideToUtf8(line);
}

void CLogTextFile::Flush() {
  if (!IsOpen() || m_strPending.empty()) return;
  std::string pending;
  pending.swap(m_strPending);
  DWORD written = 0;
  if (!WriteFile(m_hFile, pending.data(), static_cast<DWORD>(pending.size()), &written, nullptr) ||
      written != pending.size())
    ThrowLastError("log file write failed");
}

ULONGLONG CLogTextFile::GetLength() {
  LARGE_INTEGER size{};
  if (!IsOpen() || !GetFileSizeEx(m_hFile, &size)) ThrowLastError("log file size unknown");
  return static_cast<ULONGLONG>(size.QuadPart) + m_strPending.size();
}

void CLogTextFile::SeekToEnd() {
  LARGE_INTEGER zero{};
  if (!IsOpen() || !SetFilePointerEx(m_hFile, zero, nullptr, FILE_END)) ThrowLastError("log file seek failed");
}

void CLogTextFile::Close() noexcept {
  if (!IsOpen()) return;
  try {
    Flush();
  } catch (...) {
    // The bytes are lost; closing must still release the handle.
  }
  m_strPending.clear();
  CloseHandle(m_hFile);
  m_hFile = INVALID_HANDLE_VALUE;
}
