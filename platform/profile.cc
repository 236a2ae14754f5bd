// Settings files read with the Windows private-profile rules.
//
// The file is read whole on every call (settings are read a handful of times
// at start-up). Lines are "[section]" or "key=value"; section and key names
// match without regard to ASCII case, the first occurrence wins, and lines
// that are neither are skipped, so no input can make the reader fail.
#include <cctype>
#include <climits>
#include <fstream>
#include <iterator>

#include "platform/internal.h"

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

// The raw value of section/key, or false when the file, section or key is missing.
bool FindValue(LPCWSTR section, LPCWSTR key, LPCWSTR file, std::string* value) {
  if (!section || !key || !file) return false;
  std::string path;
  if (!qlt::plat::TranslatePath(file, &path)) return false;
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  // Size the buffer to the file (at most kMaxSettingsFile), so that each key
  // read costs what the file holds rather than a 1 MiB buffer.
  in.seekg(0, std::ios::end);
  std::streamoff nSize = in.tellg();
  in.seekg(0, std::ios::beg);
  if (nSize < 0) nSize = 0;
  std::string text;
  text.resize(static_cast<size_t>(nSize) < kMaxSettingsFile ? static_cast<size_t>(nSize) : kMaxSettingsFile);
  if (!text.empty()) in.read(&text[0], static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(in.gcount()));
  if (text.size() >= 3 && text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.erase(0, 3);

  const std::string wantSection = QltWideToUtf8(section), wantKey = QltWideToUtf8(key);
  bool inSection = false;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    std::string line = Trim(text.substr(pos, eol - pos));
    pos = eol + 1;
    if (line.empty() || line[0] == ';' || line[0] == '#') continue;
    if (line[0] == '[') {
      size_t close = line.find(']');
      inSection = close != std::string::npos && SameName(Trim(line.substr(1, close - 1)), wantSection);
      continue;
    }
    if (!inSection) continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos || !SameName(Trim(line.substr(0, eq)), wantKey)) continue;
    *value = Trim(line.substr(eq + 1));
    return true;
  }
  return false;
}

}  // namespace

extern "C" UINT GetPrivateProfileIntW(LPCWSTR section, LPCWSTR key, int nDefault, LPCWSTR file) {
  std::string v;
  if (!FindValue(section, key, file, &v)) return static_cast<UINT>(nDefault);
  size_t i = 0;
  bool negative = false;
  if (i < v.size() && (v[i] == '+' || v[i] == '-')) negative = v[i++] == '-';
  long long n = 0;
  for (; i < v.size() && isdigit(static_cast<unsigned char>(v[i])); ++i) {
    n = n * 10 + (v[i] - '0');
    if (n > static_cast<long long>(INT_MAX) + 1) n = static_cast<long long>(INT_MAX) + 1;  // saturate
  }
  if (negative) n = -n;
  if (n > INT_MAX) n = INT_MAX;
  return static_cast<UINT>(static_cast<int>(n));
}

extern "C" DWORD GetPrivateProfileStringW(LPCWSTR section, LPCWSTR key, LPCWSTR defaultText, LPWSTR buf, DWORD size,
                                          LPCWSTR file) {
  if (!buf || size == 0) return 0;
  std::wstring out;
  std::string v;
  if (FindValue(section, key, file, &v)) {
    if (v.size() >= 2 && ((v.front() == '"' && v.back() == '"') || (v.front() == '\'' && v.back() == '\'')))
      v = v.substr(1, v.size() - 2);
    out = QltUtf8ToWide(v);
  } else if (defaultText) {
    out = defaultText;
  }
  DWORD n = static_cast<DWORD>(out.size() < size - 1 ? out.size() : size - 1);
  wmemcpy(buf, out.c_str(), n);
  buf[n] = 0;
  return n;
}
