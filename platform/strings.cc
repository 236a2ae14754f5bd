// BSTR allocation and comparison, and UTF-8 <-> wide text conversion.
//
// A BSTR points just past a 32-bit byte count; the text is followed by a
// zero character, so it reads as an ordinary wide C string too.
#include <cstdlib>
#include <cstring>
#include <cwctype>

#include "platform/internal.h"

#if !defined(_WIN32)  // Windows has the system's BSTRs (oleaut32)
#include <locale.h>
#include <wctype.h>

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
#endif  // !_WIN32

namespace {

// Native names are byte strings; wide text is UTF-32 where wchar_t has 4
// bytes and UTF-16 where it has 2. Bytes that do not form strict UTF-8
// (stray continuation bytes, overlong forms, encoded surrogates, values past
// U+10FFFF, cut-short sequences) each become one lone low surrogate
// U+DC80..U+DCFF, and those turn back into the very byte, so every byte
// string survives the round trip unchanged whatever the host's locale.
constexpr uint32_t kEscapeFirst = 0xDC80, kEscapeLast = 0xDCFF;

void AppendUtf8(std::string& out, uint32_t cp) {
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

void AppendWide(std::wstring& out, uint32_t cp) {
  if (sizeof(wchar_t) == 2 && cp >= 0x10000) {
    cp -= 0x10000;
    out.push_back(static_cast<wchar_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<wchar_t>(0xDC00 + (cp & 0x3FF)));
  } else {
    out.push_back(static_cast<wchar_t>(cp));
  }
}

// Length of the strict UTF-8 sequence at p (1 to 4) and its code point, or 0
// when the byte at p does not start one.
int DecodeOne(const unsigned char* p, uint32_t* cp) {
  const unsigned char c = p[0];
  if (c < 0x80) {
    *cp = c;
    return 1;
  }
  int extra;
  uint32_t min;
  if (c >= 0xC2 && c <= 0xDF) {
    extra = 1, min = 0x80, *cp = c & 0x1Fu;
  } else if (c >= 0xE0 && c <= 0xEF) {
    extra = 2, min = 0x800, *cp = c & 0x0Fu;
  } else if (c >= 0xF0 && c <= 0xF4) {
    extra = 3, min = 0x10000, *cp = c & 0x07u;
  } else {
    return 0;
  }
  for (int i = 1; i <= extra; ++i) {  // stops at the terminating zero, which is no continuation byte
    if ((p[i] & 0xC0) != 0x80) return 0;
    *cp = (*cp << 6) | (p[i] & 0x3Fu);
  }
  if (*cp < min || *cp > 0x10FFFF || (*cp >= 0xD800 && *cp <= 0xDFFF)) return 0;
  return extra + 1;
}

}  // namespace

namespace qlt::plat {

bool ToUtf8Checked(const wchar_t* text, std::string* out) {
  out->clear();
  if (!text) return true;
  bool exact = true;
  for (; *text; ++text) {
    auto cp = static_cast<uint32_t>(*text);
    if (sizeof(wchar_t) == 2 && cp >= 0xD800 && cp <= 0xDBFF && text[1] >= 0xDC00 && text[1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (static_cast<uint32_t>(text[1]) - 0xDC00);
      ++text;
    }
    if (cp >= kEscapeFirst && cp <= kEscapeLast) {
      out->push_back(static_cast<char>(cp - 0xDC00));  // an escaped byte goes back as it came
    } else if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
      AppendUtf8(*out, 0xFFFD);  // no byte string stands for it
      exact = false;
    } else {
      AppendUtf8(*out, cp);
    }
  }
  return exact;
}

std::string ToUtf8(const wchar_t* text) {
  std::string out;
  ToUtf8Checked(text, &out);
  return out;
}

std::wstring ToWide(const char* text) {
  std::wstring out;
  if (!text) return out;
  const auto* p = reinterpret_cast<const unsigned char*>(text);
  while (*p) {
    uint32_t cp = 0;
    int n = DecodeOne(p, &cp);
    if (n == 0) {
      AppendWide(out, 0xDC00 + *p);  // 0x80..0xFF: any byte below 0x80 decodes
      ++p;
    } else {
      AppendWide(out, cp);
      p += n;
    }
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
