// Settings files read with the Windows private-profile rules.
//
// The file is read whole on every call (settings are read a handful of times
// at start-up). Only a regular file is read: anything else of that name
// counts as a missing file. Lines are "[section]" or "key=value"; section and key names
// match without regard to ASCII case; only the first section of a name is
// searched (as Windows does: a repeated section header does not reopen it),
// the first occurrence of a key wins, and lines that are neither are skipped,
// so no input can make the reader fail.
#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <cctype>
#include <cerrno>
#include <climits>

#include "platform/internal.h"

using qlt::plat::ToUtf8;

namespace {

constexpr size_t kMaxSettingsFile = 1 << 20;  // larger files are read only this far

std::string Trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t' || s[b] == '\r')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r')) --e;
  return s.substr(b, e - b);
}

bool SameName(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (tolower(static_cast<unsigned char>(a[i])) != tolower(static_cast<unsigned char>(b[i]))) return false;
  return true;
}

#if defined(_WIN32)
// The text of a settings file, at most kMaxSettingsFile bytes; false when
// path is not a disk file that can be read. Read here rather than by the
// system's profile calls so that the rules are the same on every system and
// a file rewritten a moment ago is read as it now is.
bool ReadSettingsText(const std::string& path, std::string* text) {
  std::wstring wide = qlt::plat::ToWide(path);
  HANDLE h = ::CreateFileW(wide.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  CAutoHandle owner(h);
  LARGE_INTEGER size{};
  if (::GetFileType(h) != FILE_TYPE_DISK || !::GetFileSizeEx(h, &size)) return false;
  size_t want =
      static_cast<ULONGLONG>(size.QuadPart) < kMaxSettingsFile ? static_cast<size_t>(size.QuadPart) : kMaxSettingsFile;
  text->resize(want);
  DWORD got = 0;
  if (!::ReadFile(h, want ? &(*text)[0] : nullptr, static_cast<DWORD>(want), &got, nullptr)) return false;
  text->resize(got);
  return true;
}
#else
// The text of a settings file, at most kMaxSettingsFile bytes; false when
// path is not a regular file that can be read. Opened without waiting, so a
// FIFO, socket or device of that name is refused at once instead of blocking
// the reader (and the library's load) until someone writes to it.
bool ReadSettingsText(const std::string& path, std::string* text) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return false;
  struct stat st {};
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (ok) {
    // Sized to the file, so each key read costs what the file holds.
    size_t want =
        static_cast<size_t>(st.st_size) < kMaxSettingsFile ? static_cast<size_t>(st.st_size) : kMaxSettingsFile;
    try {
      text->resize(want);
    } catch (...) {
      ::close(fd);
      throw;
    }
    size_t got = 0;
    while (got < want) {
      ssize_t r = ::read(fd, &(*text)[got], want - got);
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) break;
      got += static_cast<size_t>(r);
    }
    text->resize(got);
  }
  ::close(fd);
  return ok;
}
#endif

// The raw value of section/key, or false when the file, section or key is missing.
bool FindValue(LPCWSTR section, LPCWSTR key, LPCWSTR file, std::string* value) {
  if (!section || !key || !file) return false;
  qlt::plat::faults::CheckAlloc();
  std::string path;
  if (!qlt::plat::TranslatePath(file, &path)) return false;
  std::string text;
  if (!ReadSettingsText(path, &text)) return false;
  if (text.size() >= 3 && text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.erase(0, 3);

  const std::string wantSection = ToUtf8(section), wantKey = ToUtf8(key);
  bool inSection = false, sectionSeen = false;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    std::string line = Trim(text.substr(pos, eol - pos));
    pos = eol + 1;
    if (line.empty() || line[0] == ';' || line[0] == '#') continue;
    if (line[0] == '[') {
      if (inSection) return false;  // the section ended without the key
      size_t close = line.find(']');
      inSection = !sectionSeen && close != std::string::npos && SameName(Trim(line.substr(1, close - 1)), wantSection);
      sectionSeen = sectionSeen || inSection;
      continue;
    }
    if (!inSection) continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos || !SameName(Trim(line.substr(0, eq)), wantKey)) continue;
    std::string v = Trim(line.substr(eq + 1));
    if (v.size() >= 2 && ((v.front() == '"' && v.back() == '"') || (v.front() == '\'' && v.back() == '\'')))
      v = v.substr(1, v.size() - 2);
    *value = v;
    return true;
  }
  return false;
}

// The number a value starts with: optional blanks and sign, then decimal
// digits, or hexadecimal digits after "0x"/"0X". Saturates at the 32-bit
// limits.
int ParseProfileInt(const std::string& v) {
  size_t i = 0;
  while (i < v.size() && (v[i] == ' ' || v[i] == '\t')) ++i;
  bool negative = false;
  if (i < v.size() && (v[i] == '+' || v[i] == '-')) negative = v[i++] == '-';
  unsigned base = 10;
  if (i + 2 < v.size() && v[i] == '0' && (v[i + 1] == 'x' || v[i + 1] == 'X') &&
      isxdigit(static_cast<unsigned char>(v[i + 2]))) {
    base = 16;
    i += 2;
  }
  const long long kLimit = static_cast<long long>(INT_MAX) + 1;
  long long n = 0;
  for (; i < v.size(); ++i) {
    auto c = static_cast<unsigned char>(v[i]);
    int d = isdigit(c) ? c - '0' : (base == 16 && isxdigit(c)) ? (tolower(c) - 'a' + 10) : -1;
    if (d < 0) break;
    n = n * base + d;
    if (n > kLimit) n = kLimit;  // saturate
  }
  if (negative) n = -n;
  if (n > INT_MAX) n = INT_MAX;
  return static_cast<int>(n);
}

}  // namespace

UINT qlt::win::GetPrivateProfileIntW(LPCWSTR section, LPCWSTR key, int nDefault, LPCWSTR file) {
  return qlt::plat::NoThrow<UINT>(static_cast<UINT>(nDefault), [&]() -> UINT {
    std::string v;
    if (!FindValue(section, key, file, &v) || v.empty()) return static_cast<UINT>(nDefault);
    return static_cast<UINT>(ParseProfileInt(v));
  });
}

DWORD qlt::win::GetPrivateProfileStringW(LPCWSTR section, LPCWSTR key, LPCWSTR defaultText, LPWSTR buf, DWORD size,
                                         LPCWSTR file) {
  if (!buf || size == 0) return 0;
  buf[0] = 0;
  return qlt::plat::NoThrow<DWORD>(0, [&]() -> DWORD {
    std::wstring out;
    std::string v;
    if (FindValue(section, key, file, &v))
      out = qlt::plat::ToWide(v);
    else if (defaultText)
      out = defaultText;
    DWORD n = static_cast<DWORD>(out.size() < size - 1 ? out.size() : size - 1);
    wmemcpy(buf, out.c_str(), n);
    buf[n] = 0;
    return n;
  });
}
