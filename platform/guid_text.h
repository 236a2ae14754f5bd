// Little-endian 32-bit loads and stores, and the text of a GUID as the
// library writes it into file and folder names. Header only; pure
// functions, any thread.
#ifndef QLTFSDK_PLATFORM_GUID_TEXT_H
#define QLTFSDK_PLATFORM_GUID_TEXT_H

#include <cstdint>
#include <cwchar>
#include <string>

#include "platform/platform.h"

// The 32-bit number in p[0..3], least significant byte first.
inline uint32_t LoadLe32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

// Stores v in p[0..3], least significant byte first.
inline void StoreLe32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

// Data1, Data2, Data3 and Data4's two halves (each read as a little-endian
// 32-bit number) in lower-case hex of 8, 4, 4, 8 and 8 digits, with
// pszSeparator between them ("" for none). Throws std::bad_alloc only.
inline std::wstring GuidText(const GUID& guid, const wchar_t* pszSeparator) {
  wchar_t text[48] = {};
  std::swprintf(text, 48, L"%08x%ls%04x%ls%04x%ls%08x%ls%08x", static_cast<unsigned>(guid.Data1), pszSeparator,
                static_cast<unsigned>(guid.Data2), pszSeparator, static_cast<unsigned>(guid.Data3), pszSeparator,
                static_cast<unsigned>(LoadLe32(guid.Data4)), pszSeparator,
                static_cast<unsigned>(LoadLe32(guid.Data4 + 4)));
  return text;
}

#endif  // QLTFSDK_PLATFORM_GUID_TEXT_H
