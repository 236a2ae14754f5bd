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
#ifndef QLTFSDK_PLATFORM_PLATFORM_H
#define QLTFSDK_PLATFORM_PLATFORM_H

#include <string>

#include "qltfsdk/wintypes.h"

extern "C" {

// ---- Files ---------------------------------------------------------------------
// Opens or creates a file. dwShareMode is enforced between handles of this
// process (a conflicting open fails with ERROR_SHARING_VIOLATION).
// FILE_FLAG_NO_BUFFERING opens for direct I/O where the file system allows it
// (buffers, sizes and offsets must then be multiples of 512 bytes);
// FILE_FLAG_WRITE_THROUGH makes every write reach the device before it
// returns; FILE_FLAG_SEQUENTIAL_SCAN is a read-ahead hint. CREATE_ALWAYS and
// OPEN_ALWAYS on an existing file succeed with last error ERROR_ALREADY_EXISTS.
QLTPLATFORM_API HANDLE CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                   LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
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
// Closes any handle this layer made: file, event, thread or find handle.
QLTPLATFORM_API BOOL CloseHandle(HANDLE h);
QLTPLATFORM_API BOOL DeleteFileW(LPCWSTR path);
QLTPLATFORM_API BOOL MoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags);
// Creates one directory level; ERROR_ALREADY_EXISTS or ERROR_PATH_NOT_FOUND.
QLTPLATFORM_API BOOL CreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES sa);
QLTPLATFORM_API BOOL RemoveDirectoryW(LPCWSTR path);
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
typedef DWORD(WINAPI* LPTHREAD_START_ROUTINE)(LPVOID);
// Starts a thread; the handle is waitable and signalled when the thread ends.
// Closing the handle does not end the thread.
QLTPLATFORM_API HANDLE CreateThread(LPSECURITY_ATTRIBUTES sa, size_t stackSize, LPTHREAD_START_ROUTINE start,
                                    LPVOID param, DWORD flags, DWORD* pThreadId);
QLTPLATFORM_API BOOL SetThreadPriority(HANDLE hThread, int priority);
QLTPLATFORM_API BOOL GetExitCodeThread(HANDLE hThread, DWORD* pExitCode);
QLTPLATFORM_API DWORD GetCurrentThreadId();
QLTPLATFORM_API DWORD GetCurrentProcessId();
// Events: manual reset stays signalled until ResetEvent; auto reset releases
// exactly one waiter and returns to non-signalled.
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
QLTPLATFORM_API void EnterCriticalSection(LPCRITICAL_SECTION cs);
QLTPLATFORM_API void LeaveCriticalSection(LPCRITICAL_SECTION cs);

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
// Reads an integer key. Section and key match without regard to case; the
// first occurrence wins; the value is read as an optionally signed decimal
// prefix (no digits gives 0; values beyond 32 bits saturate). A missing
// file, section or key gives nDefault.
QLTPLATFORM_API UINT GetPrivateProfileIntW(LPCWSTR section, LPCWSTR key, int nDefault, LPCWSTR file);
// Reads a text key with the same matching rules, surrounding blanks removed.
// Returns the length copied (truncated to size - 1).
QLTPLATFORM_API DWORD GetPrivateProfileStringW(LPCWSTR section, LPCWSTR key, LPCWSTR defaultText, LPWSTR buf,
                                               DWORD size, LPCWSTR file);

// ---- Diagnostics ----------------------------------------------------------------------
// Debugger output: written to standard error only when the environment
// variable QLTFS_DEBUG_OUTPUT is set to a non-empty value; silent otherwise.
QLTPLATFORM_API void OutputDebugStringW(LPCWSTR text);
QLTPLATFORM_API void OutputDebugStringA(LPCSTR text);

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

// TRUE when both paths name one existing file (same device and file number,
// after following symbolic links), so that "a", "./a", a symbolic link to it
// and a hard link of it all compare equal. FALSE otherwise; the last error is
// then ERROR_SUCCESS when both files were found, else the error of the path
// that was not (ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ...).
QLTPLATFORM_API BOOL QltSameFile(LPCWSTR a, LPCWSTR b);

// Handle of the module that contains addr (for a library finding itself).
QLTPLATFORM_API HMODULE QltModuleFromAddress(const void* addr);

}  // extern "C"

// ---- Text conversion ----------------------------------------------------------------------
// UTF-8 <-> wide text. Invalid input bytes become U+FFFD; never throws except
// std::bad_alloc.
QLTPLATFORM_API std::string QltWideToUtf8(const wchar_t* text);
QLTPLATFORM_API std::string QltWideToUtf8(const std::wstring& text);
QLTPLATFORM_API std::wstring QltUtf8ToWide(const char* text);
QLTPLATFORM_API std::wstring QltUtf8ToWide(const std::string& text);
// The native path a Windows-shaped path stands for ("" when its drive letter
// is not mapped).
QLTPLATFORM_API std::string QltNativePath(const wchar_t* path);
// The Windows-shaped form of a native path (slashes become backslashes).
QLTPLATFORM_API std::wstring QltWindowsPath(const std::string& nativePath);

// Scoped owner of a critical section: enters on construction, leaves on
// destruction.
class CAutoLock {
 public:
  explicit CAutoLock(CRITICAL_SECTION* cs) : m_pcs(cs) { EnterCriticalSection(m_pcs); }
  ~CAutoLock() { LeaveCriticalSection(m_pcs); }
  CAutoLock(const CAutoLock&) = delete;
  CAutoLock& operator=(const CAutoLock&) = delete;

 private:
  CRITICAL_SECTION* m_pcs;
};

#include "platform/faults.h"  // NOLINT: the test-only fault control is part of the surface

#endif  // QLTFSDK_PLATFORM_PLATFORM_H
