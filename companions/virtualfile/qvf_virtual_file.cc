// A virtual-storage file: one platform file under the storage root.
#include "companions/virtualfile/qvf_virtual_file.h"

#include <climits>
#include <new>
#include <string>

#include "companions/virtualfile/storage_root.h"
#include "platform/platform.h"

struct CQVFVirtualFile::Impl {
  HANDLE m_hFile = nullptr;  // the open file; null when closed
};

namespace {

int FailWith(DWORD error) {
  SetLastError(error);
  return 0;
}

bool MayCreate(DWORD disposition) {
  return disposition == CREATE_NEW || disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS;
}

}  // namespace

CQVFVirtualFile::CQVFVirtualFile() : m_pImpl(new (std::nothrow) Impl) {}

CQVFVirtualFile::~CQVFVirtualFile() {
  Close();
  delete m_pImpl;
}

void CQVFVirtualFile::Destroy(unsigned int nFlags) {
  this->~CQVFVirtualFile();
  if (nFlags & 1u) ::operator delete(static_cast<void*>(this));
}

HANDLE CQVFVirtualFile::GetHandle() { return this; }

int CQVFVirtualFile::Open(LPCWSTR path, DWORD dwDesiredAccess, DWORD dwShareMode, DWORD dwCreationDisposition) {
  if (!m_pImpl) return FailWith(ERROR_NOT_ENOUGH_MEMORY);
  Close();
  try {
    std::wstring file;
    if (!qvf::MapPath(path, qvf::CurrentRoot(), &file)) return 0;
    if (MayCreate(dwCreationDisposition)) qvf::MakeParentFolders(file);
    HANDLE h = CreateFileW(file.c_str(), dwDesiredAccess, dwShareMode, nullptr, dwCreationDisposition,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return 0;
    m_pImpl->m_hFile = h;
    return 1;
  } catch (const std::bad_alloc&) {
    return FailWith(ERROR_NOT_ENOUGH_MEMORY);
  }
}

int CQVFVirtualFile::Close() {
  if (!m_pImpl || !m_pImpl->m_hFile) return FailWith(ERROR_INVALID_HANDLE);
  HANDLE h = m_pImpl->m_hFile;
  m_pImpl->m_hFile = nullptr;
  CloseHandle(h);
  return 1;
}

int CQVFVirtualFile::Write(const void* pBuffer, DWORD nCount) {
  if (!m_pImpl || !m_pImpl->m_hFile) return FailWith(ERROR_INVALID_HANDLE);
  if (!pBuffer || nCount > static_cast<DWORD>(INT_MAX)) return FailWith(ERROR_INVALID_PARAMETER);
  DWORD nWritten = 0;
  if (!WriteFile(m_pImpl->m_hFile, pBuffer, nCount, &nWritten, nullptr)) return 0;
  return static_cast<int>(nWritten);
}

int CQVFVirtualFile::Read(void* pBuffer, DWORD nCount) {
  if (!m_pImpl || !m_pImpl->m_hFile) return FailWith(ERROR_INVALID_HANDLE);
  if (!pBuffer || nCount > static_cast<DWORD>(INT_MAX)) return FailWith(ERROR_INVALID_PARAMETER);
  DWORD nRead = 0;
  if (!ReadFile(m_pImpl->m_hFile, pBuffer, nCount, &nRead, nullptr)) return 0;
  return static_cast<int>(nRead);
}

__int64 CQVFVirtualFile::Seek(__int64* pDistance, int nOrigin, int bForward) {
  if (!m_pImpl || !m_pImpl->m_hFile) return FailWith(ERROR_INVALID_HANDLE) - 1;
  if (!pDistance || nOrigin < FILE_BEGIN || nOrigin > FILE_END) return FailWith(ERROR_INVALID_PARAMETER) - 1;
  LARGE_INTEGER distance;
  distance.QuadPart = *pDistance;
  LARGE_INTEGER newPos;
  newPos.QuadPart = 0;
  if (!SetFilePointerEx(m_pImpl->m_hFile, distance, &newPos, static_cast<DWORD>(nOrigin))) return -1;
  return newPos.QuadPart;
}

__int64 CQVFVirtualFile::GetSize() {
  if (!m_pImpl || !m_pImpl->m_hFile) return FailWith(ERROR_INVALID_HANDLE) - 1;
  LARGE_INTEGER size;
  size.QuadPart = 0;
  if (!GetFileSizeEx(m_pImpl->m_hFile, &size)) return -1;
  return size.QuadPart;
}

__int64 CQVFVirtualFile::GetPosition() {
  if (!m_pImpl || !m_pImpl->m_hFile) return FailWith(ERROR_INVALID_HANDLE) - 1;
  LARGE_INTEGER zero;
  zero.QuadPart = 0;
  LARGE_INTEGER pos;
  pos.QuadPart = 0;
  if (!SetFilePointerEx(m_pImpl->m_hFile, zero, &pos, FILE_CURRENT)) return -1;
  return pos.QuadPart;
}

extern "C" CQVFVirtualFile* QltConstructVirtualFile(void* pMemory) {
  if (!pMemory) return nullptr;
  CQVFVirtualFile* pFile = new (pMemory) CQVFVirtualFile;
  if (!pFile->IsReady()) {
    pFile->Destroy(0);
    return nullptr;
  }
  return pFile;
}

extern "C" int IsFileExistExW(const wchar_t* path) {
  try {
    std::wstring file;
    if (!qvf::MapPath(path, qvf::CurrentRoot(), &file)) return 0;
    DWORD attributes = GetFileAttributesW(file.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY) ? 1 : 0;
  } catch (const std::bad_alloc&) {
    return FailWith(ERROR_NOT_ENOUGH_MEMORY);
  }
}

extern "C" int QltSetVirtualStorageRoot(const wchar_t* root) {
  try {
    qvf::SetRoot(root ? std::wstring(root) : std::wstring());
    return 1;
  } catch (const std::bad_alloc&) {
    return FailWith(ERROR_NOT_ENOUGH_MEMORY);
  }
}

extern "C" DWORD QltGetVirtualStorageRoot(wchar_t* buf, DWORD size) {
  try {
    std::wstring root = qvf::CurrentRoot();
    if (buf && size > 0) {
      size_t n = root.size() < size - 1 ? root.size() : size - 1;
      root.copy(buf, n);
      buf[n] = L'\0';
    }
    return static_cast<DWORD>(root.size());
  } catch (const std::bad_alloc&) {
    return FailWith(ERROR_NOT_ENOUGH_MEMORY);
  }
}
