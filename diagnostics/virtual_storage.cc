#include "diagnostics/virtual_storage.h"

#include <cwchar>
#include <new>

#include "platform/platform.h"

namespace {

// Loads the library (a no-op once it is loaded) and looks name up in it.
void* FindExport(const char* name) {
  HMODULE hModule = LoadLibraryW(QLT_VIRTUALFILE_DLL);
  return hModule ? GetProcAddress(hModule, name) : nullptr;
}

}  // namespace

bool QltIsVirtualStoragePath(LPCWSTR path) {
  return path && (wcsstr(path, L"qvf:\\") != nullptr || wcsstr(path, L"QVF:\\") != nullptr);
}

CQVFVirtualFile* QltNewVirtualFile() {
  auto pfnConstruct = reinterpret_cast<PFN_QltConstructVirtualFile>(FindExport("QltConstructVirtualFile"));
  if (!pfnConstruct) return nullptr;
  // The object's memory is ours; Destroy(1) gives it back with the global
  // operator delete, the counterpart of this allocation.
  void* pMemory = ::operator new(sizeof(CQVFVirtualFile), std::nothrow);
  if (!pMemory) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  CQVFVirtualFile* pFile = pfnConstruct(pMemory);
  if (!pFile) {
    ::operator delete(pMemory);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  }
  return pFile;
}

void QltDeleteVirtualFile(CQVFVirtualFile* pFile) {
  if (pFile) pFile->Destroy(1);
}

int QltVirtualFileExists(LPCWSTR path) {
  auto pfnExists = reinterpret_cast<PFN_IsFileExistExW>(FindExport("IsFileExistExW"));
  return pfnExists ? pfnExists(path) : 0;
}
