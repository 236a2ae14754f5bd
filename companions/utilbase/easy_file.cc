// QLT_EasyFile: a buffered reader over one local file.
#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "companions/utilbase/utilbase_api.h"
#include "platform/contain.h"
#include "platform/platform.h"

namespace {

constexpr int kDefaultBlockSize = 256 * 1024;
constexpr int kMaxBlockSize = 256 * 1024 * 1024;

}  // namespace

// State of one reader. Not thread-safe: the owner serves one thread at a time.
// Invariant: m_vecBuffer[0, m_nBufLen) holds the file's bytes at
// [m_nBufStart, m_nBufStart + m_nBufLen); m_nBufLen is 0 when nothing is held.
struct QLT_EasyFile::Impl {
  HANDLE m_hFile = INVALID_HANDLE_VALUE;
  int m_nBlockSize = kDefaultBlockSize;
  std::vector<unsigned char> m_vecBuffer;
  __int64 m_nBufStart = 0;
  __int64 m_nBufLen = 0;
  __int64 m_nPos = 0;       // the reader's position, as the caller sees it
  __int64 m_nFilePtr = -1;  // where the handle's file pointer stands; -1 unknown

  bool IsOpen() const { return m_hFile != INVALID_HANDLE_VALUE; }

  void Reset() {
    if (IsOpen()) CloseHandle(m_hFile);
    m_hFile = INVALID_HANDLE_VALUE;
    m_nBufStart = m_nBufLen = m_nPos = 0;
    m_nFilePtr = -1;
  }

  // Reads up to nCount bytes at nOffset straight into pDest. Returns the
  // bytes read (0 at end of file) or -1 on an error.
  __int64 ReadAt(__int64 nOffset, unsigned char* pDest, DWORD nCount) {
    if (m_nFilePtr != nOffset) {
      LARGE_INTEGER distance;
      distance.QuadPart = nOffset;
      if (!SetFilePointerEx(m_hFile, distance, nullptr, FILE_BEGIN)) {
        m_nFilePtr = -1;
        return -1;
      }
      m_nFilePtr = nOffset;
    }
    DWORD nRead = 0;
    if (!ReadFile(m_hFile, pDest, nCount, &nRead, nullptr)) {
      m_nFilePtr = -1;
      return -1;
    }
    m_nFilePtr += nRead;
    return nRead;
  }

  // Refills the buffer with one block starting at m_nPos. Returns the bytes
  // now held (0 at end of file) or -1 on an error.
  __int64 Fill() {
    if (m_vecBuffer.size() != static_cast<size_t>(m_nBlockSize)) {
      try {
        m_vecBuffer.assign(static_cast<size_t>(m_nBlockSize), 0);
      } catch (const std::bad_alloc&) {
        m_vecBuffer.clear();
        m_nBufLen = 0;
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return -1;
      }
    }
    m_nBufLen = 0;
    __int64 n = ReadAt(m_nPos, m_vecBuffer.data(), static_cast<DWORD>(m_nBlockSize));
    if (n < 0) return -1;
    m_nBufStart = m_nPos;
    m_nBufLen = n;
    return n;
  }
};

// Without memory for the state every operation fails (see the header).
QLT_EasyFile::QLT_EasyFile() : m_pImpl(new (std::nothrow) Impl()) {}

QLT_EasyFile::~QLT_EasyFile() {
  if (m_pImpl) m_pImpl->Reset();
  delete m_pImpl;
}

int QLT_EasyFile::Initialize(bool /*bReserved*/) {
  if (!m_pImpl) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  m_pImpl->Reset();
  m_pImpl->m_nBlockSize = kDefaultBlockSize;
  m_pImpl->m_vecBuffer.clear();
  return 1;
}

int QLT_EasyFile::Open(CComBSTR strPath) {
  if (!m_pImpl) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  m_pImpl->Reset();
  if (!strPath.m_str || strPath.Length() == 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  HANDLE h = QltContain(INVALID_HANDLE_VALUE, [&] {
    return CreateFileW(strPath.m_str, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
  });
  if (h == INVALID_HANDLE_VALUE) return 0;
  m_pImpl->m_hFile = h;
  m_pImpl->m_nFilePtr = 0;
  return 1;
}

int QLT_EasyFile::Read(unsigned char* pBuffer, int nCount, int /*nReserved*/) {
  if (!m_pImpl) return -1;
  Impl& d = *m_pImpl;
  if (!d.IsOpen() || !pBuffer || nCount < 0) return -1;
  int nDone = 0;
  while (nDone < nCount) {
    int nLeft = nCount - nDone;
    __int64 nInBuf = d.m_nBufStart + d.m_nBufLen - d.m_nPos;
    if (d.m_nPos >= d.m_nBufStart && nInBuf > 0) {
      int nTake = static_cast<int>(std::min<__int64>(nInBuf, nLeft));
      std::memcpy(pBuffer + nDone, d.m_vecBuffer.data() + (d.m_nPos - d.m_nBufStart), static_cast<size_t>(nTake));
      nDone += nTake;
      d.m_nPos += nTake;
      continue;
    }
    __int64 n;
    if (nLeft >= d.m_nBlockSize) {
      // A request of a whole block or more goes straight to the caller's
      // memory; copying it through the buffer would only cost time.
      n = d.ReadAt(d.m_nPos, pBuffer + nDone, static_cast<DWORD>(nLeft));
      if (n > 0) {
        nDone += static_cast<int>(n);
        d.m_nPos += n;
      }
    } else {
      n = d.Fill();
    }
    if (n < 0) return nDone > 0 ? nDone : -1;
    if (n == 0) break;  // end of file
  }
  return nDone;
}

__int64 QLT_EasyFile::GetPos() { return m_pImpl && m_pImpl->IsOpen() ? m_pImpl->m_nPos : -1; }

int QLT_EasyFile::SetPos(__int64 nPos, int nOrigin) {
  if (!m_pImpl) return 0;
  Impl& d = *m_pImpl;
  if (!d.IsOpen()) return 0;
  __int64 nBase = 0;
  if (nOrigin == 1) {
    nBase = d.m_nPos;
  } else if (nOrigin == 2) {
    nBase = GetFileSize(false);
    if (nBase < 0) return 0;
  } else if (nOrigin != 0) {
    return 0;
  }
  if ((nPos > 0 && nBase > INT64_MAX - nPos) || nBase + nPos < 0) return 0;
  d.m_nPos = nBase + nPos;
  return 1;
}

__int64 QLT_EasyFile::GetFileSize(bool /*bReserved*/) {
  if (!m_pImpl || !m_pImpl->IsOpen()) return -1;
  LARGE_INTEGER size;
  if (!GetFileSizeEx(m_pImpl->m_hFile, &size)) return -1;
  return size.QuadPart;
}

int QLT_EasyFile::SetReadBlockSize(int nBytes) {
  if (!m_pImpl || nBytes < 1 || nBytes > kMaxBlockSize) return 0;
  Impl& d = *m_pImpl;
  if (nBytes != d.m_nBlockSize) {
    d.m_nBlockSize = nBytes;
    d.m_vecBuffer.clear();
    d.m_vecBuffer.shrink_to_fit();
    d.m_nBufLen = 0;
  }
  return 1;
}

int QLT_EasyFile::Close() {
  if (m_pImpl) m_pImpl->Reset();
  return 1;
}
