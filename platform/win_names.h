// Included first in every translation unit of the SDK's own code on Windows
// (the build passes it with -include). The system headers are read here once
// with the calls that the platform layer forwards renamed out of the way, so
// the forwarders in namespace qlt::win can take the system's names in the
// global scope through using-declarations (platform_win.h), as the other
// systems' layer does: code writes CreateFileW, ::ReadFile, ... and reaches
// the forwarder, while class members of the same names (QLCT_FileEx::ReadFile)
// stay untouched. The renamed system declarations are never called.
//
// The platform's own Windows source defines QLT_PLATFORM_SYSTEM_NAMES and
// sees the system's declarations as they are.
#ifndef QLTFSDK_PLATFORM_WIN_NAMES_H
#define QLTFSDK_PLATFORM_WIN_NAMES_H

#if defined(_WIN32) && defined(__cplusplus)

#if !defined(QLT_PLATFORM_SYSTEM_NAMES)
#define CreateFileW QltSystem_CreateFileW
#define GetProcAddress QltSystem_GetProcAddress
#define CloseHandle QltSystem_CloseHandle
#define ReadFile QltSystem_ReadFile
#define WriteFile QltSystem_WriteFile
#define SetFilePointerEx QltSystem_SetFilePointerEx
#define SetFilePointer QltSystem_SetFilePointer
#define GetFileSizeEx QltSystem_GetFileSizeEx
#define GetFileSize QltSystem_GetFileSize
#define SetEndOfFile QltSystem_SetEndOfFile
#define FlushFileBuffers QltSystem_FlushFileBuffers
#define DeleteFileW QltSystem_DeleteFileW
#define MoveFileExW QltSystem_MoveFileExW
#define CreateDirectoryW QltSystem_CreateDirectoryW
#define RemoveDirectoryW QltSystem_RemoveDirectoryW
#define GetFileAttributesW QltSystem_GetFileAttributesW
#define _waccess QltSystem__waccess
#define FindFirstFileW QltSystem_FindFirstFileW
#define GetLogicalDriveStringsW QltSystem_GetLogicalDriveStringsW
#define GetDriveTypeW QltSystem_GetDriveTypeW
#define CreateThread QltSystem_CreateThread
#define CreateEventW QltSystem_CreateEventW
#define WaitForSingleObject QltSystem_WaitForSingleObject
#define WaitForMultipleObjects QltSystem_WaitForMultipleObjects
#define VirtualAlloc QltSystem_VirtualAlloc
#define LoadLibraryW QltSystem_LoadLibraryW
#define GetPrivateProfileIntW QltSystem_GetPrivateProfileIntW
#define GetPrivateProfileStringW QltSystem_GetPrivateProfileStringW
#define CRITICAL_SECTION QltSystem_CRITICAL_SECTION
#define LPCRITICAL_SECTION QltSystem_LPCRITICAL_SECTION
#endif

#ifndef NOMINMAX
#define NOMINMAX
#endif
// clang-format off
#include <winsock2.h>  // before windows.h, which would bring the old winsock.h
#include <windows.h>
#include <oleauto.h>
#include <io.h>
#include <wchar.h>
// clang-format on

#if !defined(QLT_PLATFORM_SYSTEM_NAMES)
#undef CreateFileW
#undef GetProcAddress
#undef CloseHandle
#undef ReadFile
#undef WriteFile
#undef SetFilePointerEx
#undef SetFilePointer
#undef GetFileSizeEx
#undef GetFileSize
#undef SetEndOfFile
#undef FlushFileBuffers
#undef DeleteFileW
#undef MoveFileExW
#undef CreateDirectoryW
#undef RemoveDirectoryW
#undef GetFileAttributesW
#undef _waccess
#undef FindFirstFileW
#undef GetLogicalDriveStringsW
#undef GetDriveTypeW
#undef CreateThread
#undef CreateEventW
#undef WaitForSingleObject
#undef WaitForMultipleObjects
#undef VirtualAlloc
#undef LoadLibraryW
#undef GetPrivateProfileIntW
#undef GetPrivateProfileStringW
#undef CRITICAL_SECTION
#undef LPCRITICAL_SECTION
#define QLT_PLATFORM_FORWARDED_NAMES 1
#endif

// The forwarders and their using-declarations, for every header that follows.
#include "../include/qltfsdk/wintypes.h"
#include "platform_win.h"

#endif  // _WIN32 && __cplusplus

#endif  // QLTFSDK_PLATFORM_WIN_NAMES_H
