// GUIDs and debugger output.
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/internal.h"

using namespace qlt::plat;

HRESULT qlt::win::CoCreateGuid(GUID* pguid) {
  if (!pguid) return E_INVALIDARG;
  unsigned char b[16];
  size_t got = 0;
  while (got < sizeof(b)) {
    ssize_t r = ::getrandom(b + got, sizeof(b) - got, 0);
    if (r < 0) {
      if (errno == EINTR) continue;
      return E_FAIL;
    }
    got += static_cast<size_t>(r);
  }
  b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
  pguid->Data1 =
      static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 | static_cast<uint32_t>(b[2]) << 8 | b[3];
  pguid->Data2 = static_cast<uint16_t>(b[4] << 8 | b[5]);
  pguid->Data3 = static_cast<uint16_t>(b[6] << 8 | b[7]);
  for (int i = 0; i < 8; ++i) pguid->Data4[i] = b[8 + i];
  return S_OK;
}

namespace {
bool DebugOutputOn() {
  static const bool on = [] {
    const char* v = std::getenv("QLTFS_DEBUG_OUTPUT");
    return v && *v;
  }();
  return on;
}
}  // namespace

void qlt::win::OutputDebugStringA(LPCSTR text) {
  NoThrowVoid([&] {
    if (!text || !DebugOutputOn()) return;
    std::fputs(text, stderr);
    std::fflush(stderr);
  });
}

void qlt::win::OutputDebugStringW(LPCWSTR text) {
  NoThrowVoid([&] {
    if (!text || !DebugOutputOn()) return;
    OutputDebugStringA(ToUtf8(text).c_str());
  });
}

extern "C" BOOL QltIsTerminal(FILE* stream) { return stream != nullptr && ::isatty(::fileno(stream)) != 0; }

// The arguments arrive as the bytes the caller passed, UTF-8 by convention.
extern "C" char** QltUtf8Arguments(int* /*pArgc*/, char** argv) { return argv; }
