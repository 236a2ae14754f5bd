// BSTR allocation and comparison, and UTF-8 <-> wide text conversion.
//
// A BSTR points just past a 32-bit byte count; the text is followed by a
// zero character, so it reads as an ordinary wide C string too.
#include <locale.h>
#include <wctype.h>
#include <cstdlib>
#include <cstring>
#include <cwctype>

#include "platform/internal.h"

namespace {

struct BstrHeader {
  uint32_t nBytes;
};

BstrHeader* HeaderOf(BSTR s) { return reinterpret_cast<BstrHeader*>(reinterpret_cast<char*>(s) - sizeof(BstrHeader)); }

}  // namespace

BSTR qlt::win::SysAllocStringLen(const OLECHAR* pch, UINT cch) {
  if (cch > (0x7FFFFFFFu - sizeof(BstrHeader)) / sizeof(OLECHAR) - 1) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  size_t bytes = sizeof(BstrHeader) + (static_cast<size_t>(cch) + 1) * sizeof(OLECHAR);
  auto* raw = static_cast<char*>(std::malloc(bytes));
  if (!raw) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  reinterpret_cast<BstrHeader*>(raw)->nBytes = static_cast<uint32_t>(cch * sizeof(OLECHAR));
  auto* text = reinterpret_cast<OLECHAR*>(raw + sizeof(BstrHeader));
  if (pch)
    std::memcpy(text, pch, cch * sizeof(OLECHAR));
  else
    std::memset(text, 0, cch * sizeof(OLECHAR));
  text[cch] = 0;
  return text;
}

BSTR qlt::win::SysAllocString(const OLECHAR* psz) {
  if (!psz) return nullptr;
  return SysAllocStringLen(psz, static_cast<UINT>(wcslen(psz)));
}

void qlt::win::SysFreeString(BSTR bstr) {
  if (bstr) std::free(HeaderOf(bstr));
}

UINT qlt::win::SysStringLen(BSTR bstr) { return bstr ? HeaderOf(bstr)->nBytes / sizeof(OLECHAR) : 0; }

namespace {

// Case folding that knows letters beyond ASCII whatever the host's locale
// (the "C" locale's towlower folds ASCII only).
wint_t Fold(wint_t c) {
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
  return utf8 ? towlower_l(c, utf8) : towlower(c);
}

}  // namespace

// Windows orders strings by the user's locale: case is a minor difference,
// considered only between strings that are otherwise equal, and lower case
// sorts first. We give that order for every locale: compare case-folded code
// points first; when those tie, the first difference in case decides (lower
// before upper); then length.
HRESULT qlt::win::VarBstrCmp(BSTR a, BSTR b, LCID /*lcid*/, ULONG dwFlags) {
  UINT na = SysStringLen(a), nb = SysStringLen(b);
  int caseOrder = 0;  // first difference in case only: -1 a first, 1 b first
  for (UINT i = 0; i < na && i < nb; ++i) {
    auto ca = static_cast<wint_t>(a[i]), cb = static_cast<wint_t>(b[i]);
    if (ca == cb) continue;
    wint_t fa = Fold(ca), fb = Fold(cb);
    if (fa != fb) return fa < fb ? VARCMP_LT : VARCMP_GT;
    if (caseOrder == 0) caseOrder = (ca == fa) ? -1 : 1;  // a's letter is the lower-case one
  }
  if (na != nb) return na < nb ? VARCMP_LT : VARCMP_GT;
  if ((dwFlags & NORM_IGNORECASE) || caseOrder == 0) return VARCMP_EQ;
  return caseOrder < 0 ? VARCMP_LT : VARCMP_GT;
}

namespace {

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

namespace qlt::plat {

std::string ToUtf8(const wchar_t* text) {
  std::string out;
  if (!text) return out;
  for (; *text; ++text) AppendUtf8(out, static_cast<uint32_t>(*text));
  return out;
}

std::wstring ToWide(const char* text) {
  std::wstring out;
  if (!text) return out;
  const auto* p = reinterpret_cast<const unsigned char*>(text);
  while (*p) {
    uint32_t cp;
    int extra;
    if (*p < 0x80) {
      cp = *p;
      extra = 0;
    } else if ((*p & 0xE0) == 0xC0) {
      cp = *p & 0x1F;
      extra = 1;
    } else if ((*p & 0xF0) == 0xE0) {
      cp = *p & 0x0F;
      extra = 2;
    } else if ((*p & 0xF8) == 0xF0) {
      cp = *p & 0x07;
      extra = 3;
    } else {
      out.push_back(L'\xFFFD');
      ++p;
      continue;
    }
    ++p;
    bool ok = true;
    for (int i = 0; i < extra; ++i) {
      if ((p[0] & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      cp = (cp << 6) | (p[0] & 0x3F);
      ++p;
    }
    out.push_back(ok && cp <= 0x10FFFF ? static_cast<wchar_t>(cp) : L'\xFFFD');
  }
  return out;
}

}  // namespace qlt::plat

std::string QltWideToUtf8(const wchar_t* text) {
  return qlt::plat::NoThrow(std::string(), [&] { return qlt::plat::ToUtf8(text); });
}
std::string QltWideToUtf8(const std::wstring& text) { return QltWideToUtf8(text.c_str()); }
std::wstring QltUtf8ToWide(const char* text) {
  return qlt::plat::NoThrow(std::wstring(), [&] { return qlt::plat::ToWide(text); });
}
std::wstring QltUtf8ToWide(const std::string& text) { return QltUtf8ToWide(text.c_str()); }
