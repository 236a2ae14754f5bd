// The platform surface: every Windows-shaped call the library and its
// companion libraries rely on, in one list.
//
// Everything above this layer is written against these names only; all POSIX
// headers and system differences stay inside platform/. The calls follow the
// Windows contracts for synchronous handles: failure returns FALSE, null,
// INVALID_HANDLE_VALUE or WAIT_FAILED and sets the calling thread's last
// error (GetLastError) to a Windows error code.
//
// Paths: above the layer paths use backslashes. The layer accepts '\' and '/'
// as separators; "X:\..." is translated through the drive map (see
// QltSetDrive); other paths are used as given. Paths the layer hands back
// (module file names, temporary folders) use backslashes too, so they can be
// cut at the last backslash and passed back in.
//
// All calls may come from any thread unless a comment says otherwise.
//
// Names: the Windows-named calls are defined in namespace qlt::win and made
// visible in the global scope by the using-declarations at the end of this
// header (and of qltfsdk/wintypes.h for the part hosts see), so code above
// the layer writes CreateFileW, ReadFile, Sleep... unqualified while no
// shared library of ours exports those global names. Calls named Qlt* are
// our own additions and keep their names.
//
// Exceptions: no call lets an exception out. A call that runs out of memory
// (or cannot start a thread) fails with its documented result and last
// error ERROR_NOT_ENOUGH_MEMORY, and releases what it had taken.
#ifndef QLTFSDK_PLATFORM_PLATFORM_H
#define QLTFSDK_PLATFORM_PLATFORM_H

#include <mutex>
#include <string>

#include "platform/thread_annotations.h"
#include "qltfsdk/wintypes.h"

#if defined(_WIN32)
#include "platform/platform_win.h"  // NOLINT: the system's calls behind the same names
#else
// ---- Types and constants beyond what hosts need -------------------------------
struct SYSTEMTIME {
  WORD wYear;
  WORD wMonth;
  WORD wDayOfWeek;
  WORD wDay;
  WORD wHour;
  WORD wMinute;
  WORD wSecond;
  WORD wMilliseconds;
};

typedef size_t SIZE_T;

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};

struct WIN32_FIND_DATAW {
  DWORD dwFileAttributes;
  FILETIME ftCreationTime;
  FILETIME ftLastAccessTime;
  FILETIME ftLastWriteTime;
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
  DWORD dwReserved0;
  DWORD dwReserved1;
  WCHAR cFileName[MAX_PATH];
  WCHAR cAlternateFileName[14];
};

// Re-entrant lock with the Windows critical-section contract: the owning
// thread may enter again; each Enter is matched by one Leave.
struct CAPABILITY("critical section") CRITICAL_SECTION {
  std::recursive_mutex m;
};
typedef CRITICAL_SECTION* LPCRITICAL_SECTION;

// ---- Handles and waits ------------------------------------------------------
#define INFINITE 0xFFFFFFFFu
#define WAIT_OBJECT_0 0x00000000u
#define WAIT_ABANDONED 0x00000080u
#define WAIT_TIMEOUT 0x00000102u
#define WAIT_FAILED 0xFFFFFFFFu
#define MAXIMUM_WAIT_OBJECTS 64
#define STILL_ACTIVE 259

#define THREAD_PRIORITY_LOWEST (-2)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_ABOVE_NORMAL 1
#define THREAD_PRIORITY_HIGHEST 2
#define THREAD_PRIORITY_TIME_CRITICAL 15
#define THREAD_PRIORITY_IDLE (-15)
#define THREAD_PRIORITY_ERROR_RETURN 0x7FFFFFFF

#define MEM_COMMIT 0x00001000u
#define MEM_RESERVE 0x00002000u
#define MEM_RELEASE 0x00008000u
#define PAGE_READWRITE 0x04u

#define FILE_ATTRIBUTE_DEVICE 0x00000040u

#define DRIVE_UNKNOWN 0
#define DRIVE_NO_ROOT_DIR 1
#define DRIVE_REMOVABLE 2
#define DRIVE_FIXED 3
#define DRIVE_REMOTE 4
#define DRIVE_CDROM 5
#define DRIVE_RAMDISK 6

typedef DWORD(WINAPI* LPTHREAD_START_ROUTINE)(LPVOID);

namespace qlt::win {

// ---- Files ---------------------------------------------------------------------
// CreateFileW (declared in qltfsdk/wintypes.h, which hosts see) opens or
// creates a file. dwShareMode is enforced between handles of this
// process (a conflicting open fails with ERROR_SHARING_VIOLATION).
// FILE_FLAG_NO_BUFFERING opens for direct I/O where the file system allows it
// (buffers, sizes and offsets must then be multiples of 512 bytes);
// FILE_FLAG_WRITE_THROUGH makes every write reach the device before it
// returns; FILE_FLAG_SEQUENTIAL_SCAN is a read-ahead hint. CREATE_ALWAYS and
// OPEN_ALWAYS on an existing file succeed with last error ERROR_ALREADY_EXISTS.

// Reads up to n bytes at the file pointer (or at the offset of lpOverlapped).
// Loops over interrupted and partial reads; fewer bytes only at end of file.
QLTPLATFORM_API BOOL ReadFile(HANDLE h, LPVOID buf, DWORD n, LPDWORD pRead, LPOVERLAPPED lpOverlapped);
// Writes n bytes; loops over interrupted and partial writes, so success means
// all were written unless the device filled up (then FALSE, ERROR_DISK_FULL).
QLTPLATFORM_API BOOL WriteFile(HANDLE h, LPCVOID buf, DWORD n, LPDWORD pWritten, LPOVERLAPPED lpOverlapped);
QLTPLATFORM_API BOOL SetFilePointerEx(HANDLE h, LARGE_INTEGER distance, PLARGE_INTEGER pNewPos, DWORD method);
// Returns the low 32 bits of the new position, the high part in *pHigh;
// INVALID_SET_FILE_POINTER with a last error on failure.
QLTPLATFORM_API DWORD SetFilePointer(HANDLE h, LONG distanceLow, LONG* pDistanceHigh, DWORD method);
QLTPLATFORM_API BOOL GetFileSizeEx(HANDLE h, PLARGE_INTEGER pSize);
QLTPLATFORM_API DWORD GetFileSize(HANDLE h, LPDWORD pHigh);
// Cuts or extends the file at the current file pointer.
QLTPLATFORM_API BOOL SetEndOfFile(HANDLE h);
QLTPLATFORM_API BOOL FlushFileBuffers(HANDLE h);
// CloseHandle (declared in qltfsdk/wintypes.h) closes any handle this layer
// made: file, event, thread or find handle. Each kind closes through its
// object's own virtual close; the object itself lives until the last call in
// flight on it has returned.

// Deletes a file; ERROR_SHARING_VIOLATION while a handle that does not share
// deletion is open on it.
QLTPLATFORM_API BOOL DeleteFileW(LPCWSTR path);
// Renames a file. An existing destination fails with ERROR_ALREADY_EXISTS
// unless flags hold MOVEFILE_REPLACE_EXISTING; a source or destination open
// without FILE_SHARE_DELETE fails with ERROR_SHARING_VIOLATION; another file
// system, ERROR_NOT_SAME_DEVICE.
QLTPLATFORM_API BOOL MoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags);
// Creates one directory level; ERROR_ALREADY_EXISTS or ERROR_PATH_NOT_FOUND.
QLTPLATFORM_API BOOL CreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES sa);
QLTPLATFORM_API BOOL RemoveDirectoryW(LPCWSTR path);
// FILE_ATTRIBUTE_DIRECTORY for a directory, FILE_ATTRIBUTE_DEVICE for what is
// neither a directory nor a regular file (a FIFO, socket or device, which a
// reader may wait on forever), else FILE_ATTRIBUTE_ARCHIVE; plus
// FILE_ATTRIBUTE_READONLY when the owner may not write. Symbolic links are
// followed. INVALID_FILE_ATTRIBUTES with a last error when nothing is there.
QLTPLATFORM_API DWORD GetFileAttributesW(LPCWSTR path);
// 0 when the file exists and allows mode (0 exists, 2 write, 4 read, 6 both),
// -1 otherwise.
QLTPLATFORM_API int _waccess(LPCWSTR path, int mode);
// Directory search; the pattern's last component may hold '*' and '?'.
// "." and ".." are not reported.
QLTPLATFORM_API HANDLE FindFirstFileW(LPCWSTR pattern, WIN32_FIND_DATAW* pData);
QLTPLATFORM_API BOOL FindNextFileW(HANDLE hFind, WIN32_FIND_DATAW* pData);
QLTPLATFORM_API BOOL FindClose(HANDLE hFind);
// Writes "C:\<NUL>E:\<NUL>...<NUL>" for the mapped drives; returns the length
// without the final NUL, or the size needed when nBufferLength is too small.
QLTPLATFORM_API DWORD GetLogicalDriveStringsW(DWORD nBufferLength, LPWSTR lpBuffer);
QLTPLATFORM_API UINT GetDriveTypeW(LPCWSTR root);
// Directory for temporary files, with a trailing backslash.
QLTPLATFORM_API DWORD GetTempPathW(DWORD n, LPWSTR buf);

// ---- Threads, events and waits ---------------------------------------------------
// Starts a thread; the handle is waitable and signalled when the thread ends.
// Closing the handle does not end the thread. On success the caller's last
// error is left as it was, and the new thread starts with last error 0. Null
// with ERROR_NOT_ENOUGH_MEMORY when the system cannot start a thread.
QLTPLATFORM_API HANDLE CreateThread(LPSECURITY_ATTRIBUTES sa, size_t stackSize, LPTHREAD_START_ROUTINE start,
                                    LPVOID param, DWORD flags, DWORD* pThreadId);
// The thread's priority level (THREAD_PRIORITY_*). Here the scheduling
// class stays the default (levels above normal need privileges); the level
// is kept with the thread and GetThreadPriority reports it, so the
// library's choice can be checked. SetThreadPriority: FALSE with
// ERROR_INVALID_HANDLE for a bad handle, ERROR_INVALID_PARAMETER for a
// level that is none of the constants. GetThreadPriority:
// THREAD_PRIORITY_ERROR_RETURN with ERROR_INVALID_HANDLE for a bad handle.
QLTPLATFORM_API BOOL SetThreadPriority(HANDLE hThread, int priority);
QLTPLATFORM_API int GetThreadPriority(HANDLE hThread);
QLTPLATFORM_API BOOL GetExitCodeThread(HANDLE hThread, DWORD* pExitCode);
QLTPLATFORM_API DWORD GetCurrentThreadId();
QLTPLATFORM_API DWORD GetCurrentProcessId();
// Events: manual reset stays signalled until ResetEvent; auto reset releases
// exactly one waiter and returns to non-signalled. A named event is shared
// by every handle created with the same name while one of them is open: the
// later calls return a new handle to the existing event (their reset and
// initial-state arguments are ignored) with last error ERROR_ALREADY_EXISTS.
// Any other success sets last error 0.
QLTPLATFORM_API HANDLE CreateEventW(LPSECURITY_ATTRIBUTES sa, BOOL bManualReset, BOOL bInitialState, LPCWSTR name);
QLTPLATFORM_API BOOL SetEvent(HANDLE hEvent);
QLTPLATFORM_API BOOL ResetEvent(HANDLE hEvent);
QLTPLATFORM_API DWORD WaitForSingleObject(HANDLE h, DWORD milliseconds);
// With bWaitAll FALSE returns WAIT_OBJECT_0 + the index of the first
// signalled handle in the array. bWaitAll TRUE is not supported (WAIT_FAILED,
// ERROR_NOT_SUPPORTED).
QLTPLATFORM_API DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL bWaitAll, DWORD milliseconds);
QLTPLATFORM_API void Sleep(DWORD milliseconds);

QLTPLATFORM_API void InitializeCriticalSection(LPCRITICAL_SECTION cs);
QLTPLATFORM_API void DeleteCriticalSection(LPCRITICAL_SECTION cs);
QLTPLATFORM_API void EnterCriticalSection(LPCRITICAL_SECTION cs) ACQUIRE(cs);
QLTPLATFORM_API void LeaveCriticalSection(LPCRITICAL_SECTION cs) RELEASE(cs);

// ---- Memory ------------------------------------------------------------------------
// Whole committed regions for large buffers (rings, caches). VirtualAlloc
// supports what the library uses: a null address, MEM_COMMIT | MEM_RESERVE
// and PAGE_READWRITE; it returns zero-filled memory aligned to at least a
// page, or null with ERROR_NOT_ENOUGH_MEMORY (ERROR_INVALID_PARAMETER for
// other arguments or a size of 0). Regions of 2 MiB or more are backed by
// large pages where the system offers them, which makes first touches and
// address translation cheaper. VirtualFree(p, 0, MEM_RELEASE) releases a
// whole region (any other call: FALSE, ERROR_INVALID_PARAMETER). Any
// thread.
QLTPLATFORM_API LPVOID VirtualAlloc(LPVOID pAddress, SIZE_T nSize, DWORD dwAllocationType, DWORD dwProtect);
QLTPLATFORM_API BOOL VirtualFree(LPVOID pAddress, SIZE_T nSize, DWORD dwFreeType);

// ---- Time --------------------------------------------------------------------------
// Monotonic counter and its frequency (counts per second).
QLTPLATFORM_API BOOL QueryPerformanceCounter(LARGE_INTEGER* pCount);
QLTPLATFORM_API BOOL QueryPerformanceFrequency(LARGE_INTEGER* pFrequency);
QLTPLATFORM_API DWORD GetTickCount();
QLTPLATFORM_API ULONGLONG GetTickCount64();
QLTPLATFORM_API void GetLocalTime(SYSTEMTIME* pTime);

// ---- Modules ------------------------------------------------------------------------
// LoadLibraryW("Name.dll") loads "libName.so": first from the directory of
// this platform library (where the SDK's libraries are installed together),
// then through the system loader's search path. A name with a directory part
// is loaded from that path. Null with ERROR_MOD_NOT_FOUND on failure.
QLTPLATFORM_API HMODULE LoadLibraryW(LPCWSTR name);
QLTPLATFORM_API BOOL FreeLibrary(HMODULE h);
// Null with ERROR_PROC_NOT_FOUND when the module lacks the name.
QLTPLATFORM_API void* GetProcAddress(HMODULE h, LPCSTR name);
// Null name: the executable. Otherwise a module already loaded by that name.
QLTPLATFORM_API HMODULE GetModuleHandleW(LPCWSTR name);
// Full file name of a module (null: the executable), with backslashes.
// Returns the length copied, 0 on failure.
QLTPLATFORM_API DWORD GetModuleFileNameW(HMODULE h, LPWSTR buf, DWORD size);

// ---- Settings files -------------------------------------------------------------------
// Reads an integer key. Section and key match without regard to case; only
// the first section of a name is searched and the first occurrence of a key
// wins. The value, with surrounding blanks and one pair of enclosing quotes
// removed, is read as an optionally signed number prefix: decimal, or
// hexadecimal after "0x" ("0x10" is 16). Text without digits gives 0; values
// beyond 32 bits saturate. A missing file, section or key, or an empty value,
// gives nDefault.
QLTPLATFORM_API UINT GetPrivateProfileIntW(LPCWSTR section, LPCWSTR key, int nDefault, LPCWSTR file);
// Reads a text key with the same matching rules, surrounding blanks and one
// pair of enclosing quotes removed.
// Returns the length copied (truncated to size - 1).
QLTPLATFORM_API DWORD GetPrivateProfileStringW(LPCWSTR section, LPCWSTR key, LPCWSTR defaultText, LPWSTR buf,
                                               DWORD size, LPCWSTR file);

// ---- Diagnostics ----------------------------------------------------------------------
// Debugger output: written to standard error only when the environment
// variable QLTFS_DEBUG_OUTPUT is set to a non-empty value; silent otherwise.
QLTPLATFORM_API void OutputDebugStringW(LPCWSTR text);
QLTPLATFORM_API void OutputDebugStringA(LPCSTR text);

}  // namespace qlt::win

using qlt::win::_waccess;
using qlt::win::CreateDirectoryW;
using qlt::win::CreateEventW;
using qlt::win::CreateThread;
using qlt::win::DeleteCriticalSection;
using qlt::win::DeleteFileW;
using qlt::win::EnterCriticalSection;
using qlt::win::FindClose;
using qlt::win::FindFirstFileW;
using qlt::win::FindNextFileW;
using qlt::win::FlushFileBuffers;
using qlt::win::FreeLibrary;
using qlt::win::GetCurrentProcessId;
using qlt::win::GetCurrentThreadId;
using qlt::win::GetDriveTypeW;
using qlt::win::GetExitCodeThread;
using qlt::win::GetFileAttributesW;
using qlt::win::GetFileSize;
using qlt::win::GetFileSizeEx;
using qlt::win::GetLocalTime;
using qlt::win::GetLogicalDriveStringsW;
using qlt::win::GetModuleFileNameW;
using qlt::win::GetModuleHandleW;
using qlt::win::GetPrivateProfileIntW;
using qlt::win::GetPrivateProfileStringW;
using qlt::win::GetProcAddress;
using qlt::win::GetTempPathW;
using qlt::win::GetThreadPriority;
using qlt::win::GetTickCount;
using qlt::win::GetTickCount64;
using qlt::win::InitializeCriticalSection;
using qlt::win::LeaveCriticalSection;
using qlt::win::LoadLibraryW;
using qlt::win::MoveFileExW;
using qlt::win::OutputDebugStringA;
using qlt::win::OutputDebugStringW;
using qlt::win::QueryPerformanceCounter;
using qlt::win::QueryPerformanceFrequency;
using qlt::win::ReadFile;
using qlt::win::RemoveDirectoryW;
using qlt::win::ResetEvent;
using qlt::win::SetEndOfFile;
using qlt::win::SetEvent;
using qlt::win::SetFilePointer;
using qlt::win::SetFilePointerEx;
using qlt::win::SetThreadPriority;
using qlt::win::Sleep;
using qlt::win::VirtualAlloc;
using qlt::win::VirtualFree;
using qlt::win::WaitForMultipleObjects;
using qlt::win::WaitForSingleObject;
using qlt::win::WriteFile;
#endif  // !_WIN32

extern "C" {
// ---- Drive map --------------------------------------------------------------------------
// Maps drive letter (A-Z, any case) to a directory. type is a DRIVE_* value;
// DRIVE_UNKNOWN means "tell from the file system" (a local directory is
// DRIVE_FIXED, a network file system DRIVE_REMOTE). An empty directory
// removes the letter. Without any call, C: stands for a private directory
// under the system's temporary area, created on first use.
QLTPLATFORM_API void QltSetDrive(wchar_t letter, LPCWSTR directory, UINT type);
// Forgets every mapping and restores the default C: mapping.
QLTPLATFORM_API void QltResetDriveMap();
// Reads the [DRIVES] section of an ini file: lines "X=directory" or
// "X=directory;removable" (fixed, removable, remote, cdrom, ramdisk).
// Returns the number of drives mapped.
QLTPLATFORM_API int QltLoadDriveMap(LPCWSTR iniPath);

// Handle of the module that contains addr (for a library finding itself).
QLTPLATFORM_API HMODULE QltModuleFromAddress(const void* addr);

}  // extern "C"

// ---- Write-back ---------------------------------------------------------------------------
// Starts writing [offset, offset + length) of a file opened for writing to
// its device and returns without waiting for it (length 0: to the end of the
// file). It makes nothing durable: only FlushFileBuffers does. A writer that
// calls it after each block finds most of its bytes already on the device
// when it flushes. Where the system offers no such call it does nothing and
// succeeds. FALSE with the last error for a bad handle or range.
QLTPLATFORM_API BOOL QltStartWriteBack(HANDLE h, ULONGLONG offset, ULONGLONG length);

// ---- Text conversion ----------------------------------------------------------------------
// QltWideToUtf8 / QltUtf8ToWide (native names <-> wide text, lossless for
// every byte string) are declared in qltfsdk/wintypes.h, for hosts too.
// The native path a Windows-shaped path stands for ("" when its drive letter
// is not mapped).
QLTPLATFORM_API std::string QltNativePath(const wchar_t* path);
// The Windows-shaped form of a native path (slashes become backslashes).
QLTPLATFORM_API std::wstring QltWindowsPath(const std::string& nativePath);

// ---- Settings file ------------------------------------------------------------------------
// The SDK library and each companion read qltfsdk.ini from the same place.
// Directory of hModule's file (nullptr: the host executable), without a
// trailing separator; empty when the system cannot name the file. Any thread.
QLTPLATFORM_API std::wstring QltModuleDirectory(HMODULE hModule);
// exeDir when a readable regular file qltfsdk.ini stands in it, otherwise
// moduleDir (empty when both are unknown). Any thread.
QLTPLATFORM_API std::wstring QltSettingsDirectory(const std::wstring& exeDir, const std::wstring& moduleDir);
// The qltfsdk.ini that applies to hModule (whether or not it exists): beside
// the host executable when one is readable there, else beside hModule's own
// file. Empty when neither directory is known. Any thread.
QLTPLATFORM_API std::wstring QltSettingsFile(HMODULE hModule);

// Scoped owner of a critical section: enters on construction, leaves on
// destruction.
class SCOPED_CAPABILITY CAutoLock {
 public:
  explicit CAutoLock(CRITICAL_SECTION* cs) ACQUIRE(cs) : m_pcs(cs) { EnterCriticalSection(m_pcs); }
  ~CAutoLock() RELEASE() { LeaveCriticalSection(m_pcs); }
  CAutoLock(const CAutoLock&) = delete;
  CAutoLock& operator=(const CAutoLock&) = delete;

 private:
  CRITICAL_SECTION* m_pcs;
};

// Scoped owner of one handle of this layer, for the library's own code so
// that no error path leaks a handle: closes it on destruction. Null and
// INVALID_HANDLE_VALUE both mean "no handle". Move-only; one object is used
// by one thread at a time.
class CAutoHandle {
 public:
  CAutoHandle() = default;
  explicit CAutoHandle(HANDLE h) : m_h(h) {}
  ~CAutoHandle() { Reset(); }
  CAutoHandle(CAutoHandle&& other) noexcept : m_h(other.Release()) {}
  CAutoHandle& operator=(CAutoHandle&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  CAutoHandle(const CAutoHandle&) = delete;
  CAutoHandle& operator=(const CAutoHandle&) = delete;

  HANDLE Get() const { return m_h; }
  bool IsValid() const { return m_h != nullptr && m_h != INVALID_HANDLE_VALUE; }
  explicit operator bool() const { return IsValid(); }
  // Gives the handle up to the caller without closing it.
  HANDLE Release() {
    HANDLE h = m_h;
    m_h = nullptr;
    return h;
  }
  // Closes the handle held (if any) and takes h. Keeps the last error of the
  // code that called it: closing is clean-up, not the news.
  void Reset(HANDLE h = nullptr) {
    if (h == m_h) return;
    if (IsValid()) {
      DWORD err = GetLastError();
      CloseHandle(m_h);
      SetLastError(err);
    }
    m_h = h;
  }

 private:
  HANDLE m_h = nullptr;
};

#include "platform/faults.h"  // NOLINT: the test-only fault control is part of the surface

#endif  // QLTFSDK_PLATFORM_PLATFORM_H
