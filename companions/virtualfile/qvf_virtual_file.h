// The virtual-storage library (QVFVirtualFileU): files named by "qvf:\" paths.
//
// A path holding "qvf:\" or "QVF:\" (exactly these two forms, anywhere in the
// path) names the file that follows the prefix under the storage root:
// "qvf:\pool\clip.bin" is <root>\pool\clip.bin. The root is the key Root of
// the section [VIRTUALFILE] in qltfsdk.ini (read once, from the host
// executable's directory, else from this library's directory), by default
// "C:\QVFStorage" (the C: drive of the platform's drive map). Names that
// leave the root ("..") or name nothing are refused.
//
// Users find this library by name at run time. They allocate the object
// themselves (sizeof(CQVFVirtualFile) bytes from the global operator new),
// have it constructed through the exported "QltConstructVirtualFile" and
// then call the object only through its virtual operations, whose order in
// the virtual table is fixed: Destroy, GetHandle, Open, Close, Write, Read,
// Seek, GetSize, GetPosition. New operations may only be added after them.
// The object's size is fixed too: all state lives behind one pointer. The
// class has no out-of-line members, so users need nothing of the library
// but the two functions they look up.
//
// Threading: one object serves one thread at a time. IsFileExistExW and the
// root functions may be called from any thread.
#ifndef QLTFSDK_COMPANIONS_VIRTUALFILE_QVF_VIRTUAL_FILE_H
#define QLTFSDK_COMPANIONS_VIRTUALFILE_QVF_VIRTUAL_FILE_H

#include "qltfsdk/wintypes.h"

#if defined(QLTQVF_BUILD)
#define QLTQVF_API QLT_DECL_EXPORT
#else
#define QLTQVF_API QLT_DECL_IMPORT
#endif

#define QLT_VIRTUALFILE_DLL L"QVFVirtualFileU.dll"

// The interface of a virtual-storage file. The library's own class derives
// from it without adding fields, so sizeof(CQVFVirtualFile) is the size of
// every object; QltConstructVirtualFile builds one in the caller's memory.
class CQVFVirtualFile {
 public:
  CQVFVirtualFile(const CQVFVirtualFile&) = delete;
  CQVFVirtualFile& operator=(const CQVFVirtualFile&) = delete;

  // Closes any open file and ends the object. With bit 0 of nFlags set (1)
  // the memory is also given back with the global operator delete, so it
  // must have come from the global operator new; with 0 only the object
  // ends (the owner frees the memory).
  virtual void Destroy(unsigned int nFlags) = 0;
  // The handle that stands for the open file: the object's own address.
  virtual HANDLE GetHandle() = 0;
  // Opens the storage file that path names, with the platform's meanings of
  // desired access, share mode and creation disposition. A disposition that
  // may create the file (CREATE_NEW, CREATE_ALWAYS, OPEN_ALWAYS) also makes
  // the missing folders under the root. An open file is closed first.
  // Returns 1 when open, 0 on failure (last error set: ERROR_INVALID_NAME
  // for a path without the prefix or leaving the root).
  virtual int Open(LPCWSTR path, DWORD dwDesiredAccess, DWORD dwShareMode, DWORD dwCreationDisposition) = 0;
  // Closes the open file. Returns 1, or 0 when none was open or the
  // platform's close failed (last error set).
  virtual int Close() = 0;
  // Writes nCount bytes at the position and advances. Returns the bytes
  // written; fewer than nCount (or 0) means the write failed and the last
  // error is set (ERROR_DISK_FULL for a full disk). Not open or a null
  // buffer: 0.
  virtual int Write(const void* pBuffer, DWORD nCount) = 0;
  // Reads up to nCount bytes at the position and advances. Returns the
  // bytes read (fewer only at the end of the file), 0 on failure.
  virtual int Read(void* pBuffer, DWORD nCount) = 0;
  // Moves the position by *pDistance (signed, not changed) from the start
  // (nOrigin 0), the current position (1) or the end (2). bForward is the
  // caller's direction flag (1 when it moves forward from the start or the
  // current position); the signed distance alone decides the move. Returns
  // the new position, or -1 (position unchanged) when not open, for a bad
  // origin or a null distance, or when the result would be negative.
  virtual __int64 Seek(__int64* pDistance, int nOrigin, int bForward) = 0;
  // Size of the open file in bytes, or -1 when not open.
  virtual __int64 GetSize() = 0;
  // Current position, or -1 when not open.
  virtual __int64 GetPosition() = 0;

 protected:
  CQVFVirtualFile() = default;
  // Objects end only through Destroy.
  ~CQVFVirtualFile() = default;

  void* m_pState = nullptr;  // the library's state of this object; owned by it
};

extern "C" {

// Runs the constructor of CQVFVirtualFile on pMemory, which must hold at
// least sizeof(CQVFVirtualFile) bytes suitably aligned. Returns the object,
// or null for null memory or when the object's state cannot be allocated
// (then nothing needs destroying; the caller frees its memory).
QLTQVF_API CQVFVirtualFile* QltConstructVirtualFile(void* pMemory);

// 1 when the storage file that path names exists (and is not a folder),
// else 0 (also for a path without the prefix or one leaving the root).
QLTQVF_API int IsFileExistExW(const wchar_t* path);

// Replaces the storage root for opens and checks from now on (a
// Windows-shaped or native directory; null or empty restores the root read
// from qltfsdk.ini or the default). Returns 1.
QLTQVF_API int QltSetVirtualStorageRoot(const wchar_t* root);
// Copies the current root into buf (size wide characters, terminated,
// truncated to fit). Returns the root's full length.
QLTQVF_API DWORD QltGetVirtualStorageRoot(wchar_t* buf, DWORD size);

}  // extern "C"

// The signatures of the exports above, for users that look them up by name.
typedef CQVFVirtualFile* (*PFN_QltConstructVirtualFile)(void* pMemory);
typedef int (*PFN_IsFileExistExW)(const wchar_t* path);
typedef int (*PFN_QltSetVirtualStorageRoot)(const wchar_t* root);
typedef DWORD (*PFN_QltGetVirtualStorageRoot)(wchar_t* buf, DWORD size);

#endif  // QLTFSDK_COMPANIONS_VIRTUALFILE_QVF_VIRTUAL_FILE_H
