// The platform surface on Windows: the system itself (<windows.h>), with a
// thin forwarder in namespace qlt::win for each call that the fault control
// or the drive overlay (QltSetDrive) may change. Included by platform.h only.
//
// The forwarders keep the system's contracts and names. win_names.h, read
// first in every translation unit of our code, keeps the system's
// declarations of these names out of the global scope; the using-declarations
// below put the forwarders there, so code writes CreateFileW, ::ReadFile, ...
// as on the other systems and every fault-injection test runs against the
// real system calls. The platform's own Windows source defines
// QLT_PLATFORM_SYSTEM_NAMES and calls the system directly.
//
// Differences from the system calls, all of them shared with the other
// systems' layer:
// - ReadFile at or past the end of the file succeeds with 0 bytes (the
//   system reports ERROR_HANDLE_EOF when an OVERLAPPED gives the offset).
// - ReadFile and WriteFile loop over partial transfers.
// - WaitForMultipleObjects refuses bWaitAll TRUE (WAIT_FAILED,
//   ERROR_NOT_SUPPORTED), so that no code comes to rely on a wait the other
//   systems' layer does not offer.
// - VirtualAlloc takes only what the library uses (a null address,
//   MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE, a size above 0); anything else
//   fails with ERROR_INVALID_PARAMETER.
// - Waits, event and thread creation and VirtualAlloc are allocation points
//   of the fault control (kAlloc), as in the other systems' layer.
// - LoadLibraryW of a bare name looks beside the platform library first.
// - Paths on a letter given to QltSetDrive are translated to its directory.
// Any thread may call these.
#ifndef QLTFSDK_PLATFORM_PLATFORM_WIN_H
#define QLTFSDK_PLATFORM_PLATFORM_WIN_H

#include <io.h>

#include <cwchar>

#include "thread_annotations.h"
#include "win_names.h"

namespace qlt::win {

QLTPLATFORM_API HANDLE CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                   LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
QLTPLATFORM_API BOOL CloseHandle(HANDLE h);
QLTPLATFORM_API BOOL ReadFile(HANDLE h, LPVOID buf, DWORD n, LPDWORD pRead, LPOVERLAPPED lpOverlapped);
QLTPLATFORM_API BOOL WriteFile(HANDLE h, LPCVOID buf, DWORD n, LPDWORD pWritten, LPOVERLAPPED lpOverlapped);
QLTPLATFORM_API BOOL SetFilePointerEx(HANDLE h, LARGE_INTEGER distance, PLARGE_INTEGER pNewPos, DWORD method);
QLTPLATFORM_API DWORD SetFilePointer(HANDLE h, LONG distanceLow, PLONG pDistanceHigh, DWORD method);
QLTPLATFORM_API BOOL GetFileSizeEx(HANDLE h, PLARGE_INTEGER pSize);
QLTPLATFORM_API DWORD GetFileSize(HANDLE h, LPDWORD pHigh);
QLTPLATFORM_API BOOL SetEndOfFile(HANDLE h);
QLTPLATFORM_API BOOL FlushFileBuffers(HANDLE h);
QLTPLATFORM_API BOOL DeleteFileW(LPCWSTR path);
QLTPLATFORM_API BOOL MoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags);
QLTPLATFORM_API BOOL CreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES sa);
QLTPLATFORM_API BOOL RemoveDirectoryW(LPCWSTR path);
QLTPLATFORM_API DWORD GetFileAttributesW(LPCWSTR path);
// 0 when the file exists and allows mode (0 exists, 2 write, 4 read, 6
// both), -1 otherwise.
QLTPLATFORM_API int WAccess(LPCWSTR path, int mode);
QLTPLATFORM_API HANDLE FindFirstFileW(LPCWSTR pattern, LPWIN32_FIND_DATAW pData);
QLTPLATFORM_API DWORD GetLogicalDriveStringsW(DWORD nBufferLength, LPWSTR lpBuffer);
QLTPLATFORM_API UINT GetDriveTypeW(LPCWSTR root);
QLTPLATFORM_API HANDLE CreateThread(LPSECURITY_ATTRIBUTES sa, SIZE_T stackSize, LPTHREAD_START_ROUTINE start,
                                    LPVOID param, DWORD flags, LPDWORD pThreadId);
QLTPLATFORM_API HANDLE CreateEventW(LPSECURITY_ATTRIBUTES sa, BOOL bManualReset, BOOL bInitialState, LPCWSTR name);
QLTPLATFORM_API DWORD WaitForSingleObject(HANDLE h, DWORD milliseconds);
QLTPLATFORM_API DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL bWaitAll, DWORD milliseconds);
QLTPLATFORM_API LPVOID VirtualAlloc(LPVOID pAddress, SIZE_T nSize, DWORD dwAllocationType, DWORD dwProtect);
QLTPLATFORM_API HMODULE LoadLibraryW(LPCWSTR name);
// The address of an exported name as a plain pointer, for a cast to the
// function type the caller knows; null with ERROR_PROC_NOT_FOUND.
QLTPLATFORM_API void* GetProcAddress(HMODULE h, LPCSTR name);
QLTPLATFORM_API UINT GetPrivateProfileIntW(LPCWSTR section, LPCWSTR key, INT nDefault, LPCWSTR file);
QLTPLATFORM_API DWORD GetPrivateProfileStringW(LPCWSTR section, LPCWSTR key, LPCWSTR defaultText, LPWSTR buf,
                                               DWORD size, LPCWSTR file);

}  // namespace qlt::win

#if defined(QLT_PLATFORM_FORWARDED_NAMES)
// A system critical section that is ready from its construction to its
// destruction, so a lock can be a plain member as on the other systems
// (InitializeCriticalSection and DeleteCriticalSection then have nothing left
// to do). Re-entrant: the owning thread may enter again.
struct CAPABILITY("critical section") CRITICAL_SECTION {
  CRITICAL_SECTION() { ::InitializeCriticalSection(&cs); }
  ~CRITICAL_SECTION() { ::DeleteCriticalSection(&cs); }
  CRITICAL_SECTION(const CRITICAL_SECTION&) = delete;
  CRITICAL_SECTION& operator=(const CRITICAL_SECTION&) = delete;
  RTL_CRITICAL_SECTION cs;
};
typedef CRITICAL_SECTION* LPCRITICAL_SECTION;

namespace qlt::win {
inline void InitializeCriticalSection(LPCRITICAL_SECTION /*c*/) {}
inline void DeleteCriticalSection(LPCRITICAL_SECTION /*c*/) {}
inline void EnterCriticalSection(LPCRITICAL_SECTION c) ACQUIRE(c) { ::EnterCriticalSection(&c->cs); }
inline void LeaveCriticalSection(LPCRITICAL_SECTION c) RELEASE(c) { ::LeaveCriticalSection(&c->cs); }
}  // namespace qlt::win

using qlt::win::CloseHandle;
using qlt::win::CreateDirectoryW;
using qlt::win::CreateEventW;
using qlt::win::CreateFileW;
using qlt::win::CreateThread;
using qlt::win::DeleteCriticalSection;
using qlt::win::DeleteFileW;
using qlt::win::EnterCriticalSection;
using qlt::win::FindFirstFileW;
using qlt::win::FlushFileBuffers;
using qlt::win::GetDriveTypeW;
using qlt::win::GetFileAttributesW;
using qlt::win::GetFileSize;
using qlt::win::GetFileSizeEx;
using qlt::win::GetLogicalDriveStringsW;
using qlt::win::GetPrivateProfileIntW;
using qlt::win::GetPrivateProfileStringW;
using qlt::win::GetProcAddress;
using qlt::win::InitializeCriticalSection;
using qlt::win::LeaveCriticalSection;
using qlt::win::LoadLibraryW;
using qlt::win::MoveFileExW;
using qlt::win::ReadFile;
using qlt::win::RemoveDirectoryW;
using qlt::win::SetEndOfFile;
using qlt::win::SetFilePointer;
using qlt::win::SetFilePointerEx;
using qlt::win::VirtualAlloc;
using qlt::win::WaitForMultipleObjects;
using qlt::win::WaitForSingleObject;
using qlt::win::WriteFile;
inline int _waccess(LPCWSTR path, int mode) { return qlt::win::WAccess(path, mode); }
#endif  // QLT_PLATFORM_FORWARDED_NAMES

#endif  // QLTFSDK_PLATFORM_PLATFORM_WIN_H
