// A virtual-storage file: one platform file under the storage root.
#include "companions/virtualfile/qvf_virtual_file.h"

#include <climits>
#include <new>
#include <string>

#include "companions/virtualfile/storage_root.h"
#include "platform/platform.h"

namespace {

// The state behind one object.
struct FileState {
  HANDLE m_hFile = nullptr;  // the open file; null when closed
};

int FailWith(DWORD error) {
  SetLastError(error);
  return 0;
}

bool MayCreate(DWORD disposition) {
  return disposition == CREATE_NEW || disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS;
}

// The library's virtual-storage file: a platform file under the root. It
// adds no fields, so it fits in the memory a user allocates for the interface.
class CQVFStorageFile final : public CQVFVirtualFile {
 public:
  explicit CQVFStorageFile(FileState* pState) { m_pState = pState; }

  void Destroy(unsigned int nFlags) override {
    this->~CQVFStorageFile();
    if (nFlags & 1u) ::operator delete(static_cast<void*>(this));
  }

  HANDLE GetHandle() override { return this; }

  int Open(LPCWSTR path, DWORD dwDesiredAccess, DWORD dwShareMode, DWORD dwCreationDisposition) override {
    if (State().m_hFile) Close();
    try {
      std::wstring file;
      if (!qvf::MapPath(path, qvf::CurrentRoot(), &file)) return 0;
      if (MayCreate(dwCreationDisposition)) qvf::MakeParentFolders(file);
      HANDLE h = CreateFileW(file.c_str(), dwDesiredAccess, dwShareMode, nullptr, dwCreationDisposition,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
      if (h == INVALID_HANDLE_VALUE) return 0;
      State().m_hFile = h;
      return 1;
    } catch (const std::bad_alloc&) {
      return FailWith(ERROR_NOT_ENOUGH_MEMORY);
    }
  }

  int Close() override {
    HANDLE h = State().m_hFile;
    if (!h) return FailWith(ERROR_INVALID_HANDLE);
    State().m_hFile = nullptr;
    return CloseHandle(h) ? 1 : 0;
  }

  int Write(const void* pBuffer, DWORD nCount) override {
    if (!State().m_hFile) return FailWith(ERROR_INVALID_HANDLE);
    if (!pBuffer || nCount > static_cast<DWORD>(INT_MAX)) return FailWith(ERROR_INVALID_PARAMETER);
    DWORD nWritten = 0;
    // A write that fails after some bytes reports those bytes (fewer than
    // asked, last error set); the caller must not take them as written whole.
    if (!WriteFile(State().m_hFile, pBuffer, nCount, &nWritten, nullptr)) return static_cast<int>(nWritten);
    if (nWritten < nCount) SetLastError(ERROR_DISK_FULL);
    return static_cast<int>(nWritten);
  }

  int Read(void* pBuffer, DWORD nCount) override {
    if (!State().m_hFile) return FailWith(ERROR_INVALID_HANDLE);
    if (!pBuffer || nCount > static_cast<DWORD>(INT_MAX)) return FailWith(ERROR_INVALID_PARAMETER);
    DWORD nRead = 0;
    if (!ReadFile(State().m_hFile, pBuffer, nCount, &nRead, nullptr)) return 0;
    return static_cast<int>(nRead);
  }

  __int64 Seek(__int64* pDistance, int nOrigin, int bForward) override {
    if (!State().m_hFile) return FailWith(ERROR_INVALID_HANDLE) - 1;
    if (!pDistance || nOrigin < FILE_BEGIN || nOrigin > FILE_END) return FailWith(ERROR_INVALID_PARAMETER) - 1;
    LARGE_INTEGER distance;
    distance.QuadPart = *pDistance;
    LARGE_INTEGER newPos;
    newPos.QuadPart = 0;
    if (!SetFilePointerEx(State().m_hFile, distance, &newPos, static_cast<DWORD>(nOrigin))) return -1;
    return newPos.QuadPart;
  }

  __int64 GetSize() override {
    if (!State().m_hFile) return FailWith(ERROR_INVALID_HANDLE) - 1;
    LARGE_INTEGER size;
    size.QuadPart = 0;
    if (!GetFileSizeEx(State().m_hFile, &size)) return -1;
    return size.QuadPart;
  }

  __int64 GetPosition() override {
    if (!State().m_hFile) return FailWith(ERROR_INVALID_HANDLE) - 1;
    LARGE_INTEGER zero;
    zero.QuadPart = 0;
    LARGE_INTEGER pos;
    pos.QuadPart = 0;
    if (!SetFilePointerEx(State().m_hFile, zero, &pos, FILE_CURRENT)) return -1;
    return pos.QuadPart;
  }

 private:
  ~CQVFStorageFile() {
    if (State().m_hFile) Close();
    delete &State();
  }
  FileState& State() { return *static_cast<FileState*>(m_pState); }
};

static_assert(sizeof(CQVFStorageFile) == sizeof(CQVFVirtualFile), "users allocate sizeof(CQVFVirtualFile)");

}  // namespace

extern "C" CQVFVirtualFile* QltConstructVirtualFile(void* pMemory) {
  if (!pMemory) return nullptr;
  FileState* pState = new (std::nothrow) FileState;
  if (!pState) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  return new (pMemory) CQVFStorageFile(pState);
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
