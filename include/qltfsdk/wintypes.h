// Windows-shaped types, constants and string helpers shared by the library,
// its companion libraries and every host.
//
// On Windows these names come from the system headers; on other systems the
// qltplatform library provides them, so host code compiles the same way on
// both. This header holds only what a host needs to call the SDK: the types
// of the exported signatures, the constants of the file calls, error codes,
// BSTR functions, CComBSTR, CArray, GUIDs, the last error, and CreateFileW /
// CloseHandle for handing a file to the SDK. The complete surface used inside
// the library is listed in platform/platform.h.
//
// The functions are defined in namespace qlt::win, so the shared library
// exports no global name a host or another library might also define
// (GetLastError, CreateFileW, ...); the using-declarations below bring the
// Windows names into the global scope for code that includes this header. A
// Windows build takes the same names from the system headers instead.
#ifndef QLTFSDK_WINTYPES_H
#define QLTFSDK_WINTYPES_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <new>
#include <string>
#include <utility>

#if defined(_WIN32)
#define QLT_DECL_EXPORT __declspec(dllexport)
#define QLT_DECL_IMPORT __declspec(dllimport)
#else
#define QLT_DECL_EXPORT __attribute__((visibility("default")))
#define QLT_DECL_IMPORT __attribute__((visibility("default")))
#endif

#if defined(QLTPLATFORM_BUILD)
#define QLTPLATFORM_API QLT_DECL_EXPORT
#else
#define QLTPLATFORM_API QLT_DECL_IMPORT
#endif

#if defined(_WIN32)
// The system's own names, types and calls. NOMINMAX keeps min and max free
// for the standard library.
#ifndef NOMINMAX
#define NOMINMAX
#endif
// clang-format off
#include <winsock2.h>  // before windows.h, which would bring the old winsock.h
#include <windows.h>
#include <oleauto.h>
// clang-format on
#else

// ---- Scalar types -----------------------------------------------------------
typedef int BOOL;
typedef unsigned char BYTE;
typedef unsigned short WORD;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
typedef int64_t __int64;
typedef unsigned int UINT;
typedef int32_t HRESULT;
typedef void* HANDLE;
typedef void* HMODULE;
typedef HMODULE HINSTANCE;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef wchar_t WCHAR;
typedef wchar_t OLECHAR;
typedef WCHAR* LPWSTR;
typedef const WCHAR* LPCWSTR;
typedef char* LPSTR;
typedef const char* LPCSTR;
typedef DWORD* LPDWORD;
typedef OLECHAR* BSTR;
typedef uintptr_t ULONG_PTR;
typedef intptr_t LONG_PTR;
typedef ULONG_PTR DWORD_PTR;
typedef DWORD LCID;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
#ifndef MAX_PATH
#define MAX_PATH 260
#endif
#ifndef WINAPI
#define WINAPI
#endif
#ifndef CALLBACK
#define CALLBACK
#endif

union LARGE_INTEGER {
  struct {
    DWORD LowPart;
    LONG HighPart;
  } u;
  LONGLONG QuadPart;
};
typedef LARGE_INTEGER* PLARGE_INTEGER;

struct SECURITY_ATTRIBUTES {
  DWORD nLength;
  LPVOID lpSecurityDescriptor;
  BOOL bInheritHandle;
};
typedef SECURITY_ATTRIBUTES* LPSECURITY_ATTRIBUTES;

// Asynchronous I/O is not offered: an OVERLAPPED passed to ReadFile or
// WriteFile only supplies the file offset, and the call completes in place.
struct OVERLAPPED {
  ULONG_PTR Internal;
  ULONG_PTR InternalHigh;
  DWORD Offset;
  DWORD OffsetHigh;
  HANDLE hEvent;
};
typedef OVERLAPPED* LPOVERLAPPED;

struct GUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
};

// ---- Handles ---------------------------------------------------------------
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1)))

// ---- File access, share, disposition and flags ------------------------------
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define GENERIC_ALL 0x10000000u
#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define FILE_SHARE_DELETE 0x00000004u

#define CREATE_NEW 1
#define CREATE_ALWAYS 2
#define OPEN_EXISTING 3
#define OPEN_ALWAYS 4
#define TRUNCATE_EXISTING 5

#define FILE_ATTRIBUTE_READONLY 0x00000001u
#define FILE_ATTRIBUTE_HIDDEN 0x00000002u
#define FILE_ATTRIBUTE_DIRECTORY 0x00000010u
#define FILE_ATTRIBUTE_ARCHIVE 0x00000020u
#define FILE_ATTRIBUTE_NORMAL 0x00000080u
#define INVALID_FILE_ATTRIBUTES 0xFFFFFFFFu

#define FILE_FLAG_WRITE_THROUGH 0x80000000u
#define FILE_FLAG_OVERLAPPED 0x40000000u
#define FILE_FLAG_NO_BUFFERING 0x20000000u
#define FILE_FLAG_RANDOM_ACCESS 0x10000000u
#define FILE_FLAG_SEQUENTIAL_SCAN 0x08000000u
#define FILE_FLAG_DELETE_ON_CLOSE 0x04000000u

#define FILE_BEGIN 0
#define FILE_CURRENT 1
#define FILE_END 2
#define INVALID_SET_FILE_POINTER 0xFFFFFFFFu
#define INVALID_FILE_SIZE 0xFFFFFFFFu

#define MOVEFILE_REPLACE_EXISTING 0x00000001u

// ---- Error codes -------------------------------------------------------------
#define ERROR_SUCCESS 0
#define NO_ERROR 0
#define ERROR_INVALID_FUNCTION 1
#define ERROR_FILE_NOT_FOUND 2
#define ERROR_PATH_NOT_FOUND 3
#define ERROR_TOO_MANY_OPEN_FILES 4
#define ERROR_ACCESS_DENIED 5
#define ERROR_INVALID_HANDLE 6
#define ERROR_NOT_ENOUGH_MEMORY 8
#define ERROR_OUTOFMEMORY 14
#define ERROR_INVALID_DRIVE 15
#define ERROR_NOT_SAME_DEVICE 17
#define ERROR_NO_MORE_FILES 18
#define ERROR_WRITE_FAULT 29
#define ERROR_READ_FAULT 30
#define ERROR_GEN_FAILURE 31
#define ERROR_SHARING_VIOLATION 32
#define ERROR_LOCK_VIOLATION 33
#define ERROR_HANDLE_EOF 38
#define ERROR_HANDLE_DISK_FULL 39
#define ERROR_NOT_SUPPORTED 50
#define ERROR_BAD_NETPATH 53
#define ERROR_NETWORK_ACCESS_DENIED 65
#define ERROR_FILE_EXISTS 80
#define ERROR_INVALID_PARAMETER 87
#define ERROR_BROKEN_PIPE 109
#define ERROR_OPEN_FAILED 110
#define ERROR_BUFFER_OVERFLOW 111
#define ERROR_DISK_FULL 112
#define ERROR_CALL_NOT_IMPLEMENTED 120
#define ERROR_INSUFFICIENT_BUFFER 122
#define ERROR_INVALID_NAME 123
#define ERROR_MOD_NOT_FOUND 126
#define ERROR_PROC_NOT_FOUND 127
#define ERROR_NEGATIVE_SEEK 131
#define ERROR_DIR_NOT_EMPTY 145
#define ERROR_BUSY 170
#define ERROR_ALREADY_EXISTS 183
#define ERROR_FILENAME_EXCED_RANGE 206
#define ERROR_MORE_DATA 234
#define ERROR_NO_MORE_ITEMS 259
#define ERROR_DIRECTORY 267
#define ERROR_IO_PENDING 997
#define ERROR_NOACCESS 998
#define ERROR_TIMEOUT 1460
#define ERROR_INVALID_DATA 13
#define ERROR_NETNAME_DELETED 64
#define ERROR_CANCELLED 1223
#define ERROR_CONNECTION_REFUSED 1225
#define ERROR_SEEK 25
#define ERROR_BAD_NET_RESP 58
#define ERROR_NOT_AUTHENTICATED 1244

#define S_OK static_cast<HRESULT>(0)
#define S_FALSE static_cast<HRESULT>(1)
#define E_FAIL static_cast<HRESULT>(0x80004005u)
#define E_OUTOFMEMORY static_cast<HRESULT>(0x8007000Eu)
#define E_INVALIDARG static_cast<HRESULT>(0x80070057u)

// VarBstrCmp results and flags.
#define VARCMP_LT 0
#define VARCMP_EQ 1
#define VARCMP_GT 2
#define VARCMP_NULL 3
#define NORM_IGNORECASE 0x00000001u
#define LOCALE_USER_DEFAULT 0x0400u

// ---- Host-visible platform calls ----------------------------------------------
namespace qlt::win {
// Last error of the calling thread. Every platform call that fails sets it.
QLTPLATFORM_API DWORD GetLastError();
QLTPLATFORM_API void SetLastError(DWORD dwErrCode);

// BSTR: a length-prefixed, zero-terminated wide string. Allocation returns
// null only when memory is exhausted (or for a null source in SysAllocString).
// The caller owns the result and frees it with SysFreeString, which accepts
// null. Any thread may call these.
QLTPLATFORM_API BSTR SysAllocString(const OLECHAR* psz);
QLTPLATFORM_API BSTR SysAllocStringLen(const OLECHAR* pch, UINT cch);
QLTPLATFORM_API void SysFreeString(BSTR bstr);
QLTPLATFORM_API UINT SysStringLen(BSTR bstr);
// Compares two BSTRs; a null BSTR equals an empty one. dwFlags may hold
// NORM_IGNORECASE. The order is the one a reader expects from a sorted list,
// not code-unit order: letters compare without case first ("apple" before
// "Banana"); only strings equal but for case are then ordered, lower case
// first ("a" before "A"). lcid is not used (one order for every locale).
// Returns VARCMP_LT, VARCMP_EQ or VARCMP_GT.
QLTPLATFORM_API HRESULT VarBstrCmp(BSTR a, BSTR b, LCID lcid, ULONG dwFlags);

// A fresh random (version 4) GUID. Returns S_OK, or E_FAIL when the system's
// random source cannot be read.
QLTPLATFORM_API HRESULT CoCreateGuid(GUID* pguid);

// Opens or creates a file (see platform/platform.h for the full contract).
// INVALID_HANDLE_VALUE with a last error on failure.
QLTPLATFORM_API HANDLE CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                   LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
// Closes any handle the platform layer made. A closed or unknown handle
// fails with ERROR_INVALID_HANDLE; a handle value is not reused for a long
// time, so a stale one never reaches another object. Safe while other
// threads still use the handle: their calls finish or fail cleanly.
QLTPLATFORM_API BOOL CloseHandle(HANDLE h);
}  // namespace qlt::win

using qlt::win::CloseHandle;
using qlt::win::CoCreateGuid;
using qlt::win::CreateFileW;
using qlt::win::GetLastError;
using qlt::win::SetLastError;
using qlt::win::SysAllocString;
using qlt::win::SysAllocStringLen;
using qlt::win::SysFreeString;
using qlt::win::SysStringLen;
using qlt::win::VarBstrCmp;
#endif  // !_WIN32

// ---- Text and native names ------------------------------------------------------
// Conversion between wide text and native (UTF-8) names, the same for the
// library and every host, whatever the C locale. Lossless for every byte
// string: bytes that are not strict UTF-8 become one lone low surrogate each
// (U+DC80..U+DCFF for 0x80..0xFF) and turn back into the same bytes, so a
// name read from the system, converted to wide text and back, names the same
// file. Wide text is UTF-16 where wchar_t has 2 bytes (surrogate pairs) and
// UTF-32 where it has 4. A code unit that no byte string stands for (another
// lone surrogate, a value past U+10FFFF) becomes U+FFFD; the platform's file
// calls refuse such a name with ERROR_INVALID_NAME instead. Out of memory
// gives an empty result with last error ERROR_NOT_ENOUGH_MEMORY; nothing
// throws. Any thread may call these.
QLTPLATFORM_API std::string QltWideToUtf8(const wchar_t* text);
QLTPLATFORM_API std::string QltWideToUtf8(const std::wstring& text);
QLTPLATFORM_API std::wstring QltUtf8ToWide(const char* text);
QLTPLATFORM_API std::wstring QltUtf8ToWide(const std::string& text);

// ---- File identity ----------------------------------------------------------------
// TRUE when both paths name one existing file (same device and file number,
// after following symbolic links), so that "a", "./a", a symbolic link to it
// and a hard link of it all compare equal; devices too. FALSE otherwise; the
// last error is then ERROR_SUCCESS when both files were found, else the
// error of the path that was not (ERROR_FILE_NOT_FOUND, ...). Any thread.
extern "C" QLTPLATFORM_API BOOL QltSameFile(LPCWSTR a, LPCWSTR b);
// TRUE when the C stream writes to a terminal (a console window on Windows);
// FALSE for files, pipes, null or a closed stream. Any thread.
extern "C" QLTPLATFORM_API BOOL QltIsTerminal(FILE* stream);
// The process's command-line arguments in UTF-8, for a program's main. On
// Windows argv holds them in the ANSI code page, where a name outside it
// arrives as '?': they are read again from the wide command line and
// *pArgc is set to their count. Elsewhere argv is returned as it is. The
// returned vector lives until the process ends; on any failure (no wide
// command line, out of memory) argv is returned and *pArgc is unchanged.
// Call once, from the main thread, before other threads start.
extern "C" QLTPLATFORM_API char** QltUtf8Arguments(int* pArgc, char** argv);

// ---- CComBSTR -----------------------------------------------------------------
// Owning wrapper over one BSTR. Copying duplicates the string; moving steals
// it. Not thread-safe: one object is used by one thread at a time.
class CComBSTR {
 public:
  BSTR m_str = nullptr;

  CComBSTR() = default;
  CComBSTR(const OLECHAR* psz) : m_str(psz ? SysAllocString(psz) : nullptr) {}  // NOLINT
  CComBSTR(int nSize, const OLECHAR* sz) : m_str(SysAllocStringLen(sz, static_cast<UINT>(nSize))) {}
  CComBSTR(const CComBSTR& src) : m_str(src.m_str ? SysAllocStringLen(src.m_str, SysStringLen(src.m_str)) : nullptr) {}
  CComBSTR(CComBSTR&& src) noexcept : m_str(src.m_str) { src.m_str = nullptr; }
  ~CComBSTR() { SysFreeString(m_str); }

  CComBSTR& operator=(const CComBSTR& src) {
    if (this != &src) {
      BSTR copy = src.m_str ? SysAllocStringLen(src.m_str, SysStringLen(src.m_str)) : nullptr;
      SysFreeString(m_str);
      m_str = copy;
    }
    return *this;
  }
  CComBSTR& operator=(CComBSTR&& src) noexcept {
    if (this != &src) {
      SysFreeString(m_str);
      m_str = src.m_str;
      src.m_str = nullptr;
    }
    return *this;
  }
  CComBSTR& operator=(const OLECHAR* psz) {
    BSTR copy = psz ? SysAllocString(psz) : nullptr;
    SysFreeString(m_str);
    m_str = copy;
    return *this;
  }

  operator BSTR() const { return m_str; }  // NOLINT
  unsigned int Length() const { return SysStringLen(m_str); }
  bool IsEmpty() const { return Length() == 0; }
  // A new BSTR copy that the caller owns (null for a null string).
  BSTR Copy() const { return m_str ? SysAllocStringLen(m_str, SysStringLen(m_str)) : nullptr; }
  // Gives up ownership of the string to the caller.
  BSTR Detach() {
    BSTR s = m_str;
    m_str = nullptr;
    return s;
  }
  // Takes ownership of src, freeing the current string.
  void Attach(BSTR src) {
    if (m_str != src) {
      SysFreeString(m_str);
      m_str = src;
    }
  }
  void Empty() {
    SysFreeString(m_str);
    m_str = nullptr;
  }
  HRESULT Append(const OLECHAR* psz) { return Append(psz, psz ? static_cast<int>(wcslen(psz)) : 0); }
  HRESULT Append(const OLECHAR* pch, int cch) {
    if (cch <= 0) return S_OK;
    UINT old = Length();
    BSTR joined = SysAllocStringLen(nullptr, old + static_cast<UINT>(cch));
    if (!joined) return E_OUTOFMEMORY;
    if (old) wmemcpy(joined, m_str, old);
    wmemcpy(joined + old, pch, static_cast<size_t>(cch));
    SysFreeString(m_str);
    m_str = joined;
    return S_OK;
  }
  CComBSTR& operator+=(const OLECHAR* psz) {
    Append(psz);
    return *this;
  }
  // Exact comparison with a plain zero-terminated string (null equals "").
  bool operator==(const OLECHAR* psz) const {
    size_t n = psz ? wcslen(psz) : 0;
    return Length() == n && (n == 0 || wmemcmp(m_str, psz, n) == 0);
  }
  bool operator!=(const OLECHAR* psz) const { return !(*this == psz); }
  bool operator!() const { return m_str == nullptr; }
};

// ---- CArray -------------------------------------------------------------------
// Small growable array for lists handed across the boundary. ARG_TYPE is the
// argument type of Add/SetAt, as in the framework class it mirrors. Not
// thread-safe.
template <class TYPE, class ARG_TYPE = const TYPE&>
class CArray {
 public:
  CArray() = default;
  CArray(const CArray&) = delete;
  CArray& operator=(const CArray&) = delete;
  ~CArray() { RemoveAll(); }

  int GetSize() const { return m_nSize; }
  int GetCount() const { return m_nSize; }
  bool IsEmpty() const { return m_nSize == 0; }
  int GetUpperBound() const { return m_nSize - 1; }
  TYPE* GetData() { return m_pData; }
  const TYPE* GetData() const { return m_pData; }
  TYPE& operator[](int i) { return m_pData[i]; }
  const TYPE& operator[](int i) const { return m_pData[i]; }
  TYPE& ElementAt(int i) { return m_pData[i]; }
  const TYPE& GetAt(int i) const { return m_pData[i]; }
  void SetAt(int i, ARG_TYPE v) { m_pData[i] = v; }

  // Grows or shrinks to n elements; new elements are value-initialised.
  void SetSize(int n) {
    if (n < 0) n = 0;
    Reserve(n);
    for (int i = m_nSize; i < n; ++i) new (&m_pData[i]) TYPE();
    for (int i = n; i < m_nSize; ++i) m_pData[i].~TYPE();
    m_nSize = n;
  }
  int Add(ARG_TYPE v) {
    Reserve(m_nSize + 1);
    new (&m_pData[m_nSize]) TYPE(v);
    return m_nSize++;
  }
  void RemoveAt(int i, int count = 1) {
    if (i < 0 || count <= 0 || i + count > m_nSize) return;
    for (int k = i; k + count < m_nSize; ++k) m_pData[k] = std::move(m_pData[k + count]);
    for (int k = m_nSize - count; k < m_nSize; ++k) m_pData[k].~TYPE();
    m_nSize -= count;
  }
  void RemoveAll() {
    for (int i = 0; i < m_nSize; ++i) m_pData[i].~TYPE();
    ::operator delete(m_pData);
    m_pData = nullptr;
    m_nSize = m_nCapacity = 0;
  }

 private:
  void Reserve(int n) {
    if (n <= m_nCapacity) return;
    int cap = m_nCapacity ? m_nCapacity * 2 : 8;
    if (cap < n) cap = n;
    TYPE* p = static_cast<TYPE*>(::operator new(sizeof(TYPE) * static_cast<size_t>(cap)));
    for (int i = 0; i < m_nSize; ++i) {
      new (&p[i]) TYPE(std::move(m_pData[i]));
      m_pData[i].~TYPE();
    }
    ::operator delete(m_pData);
    m_pData = p;
    m_nCapacity = cap;
  }

  TYPE* m_pData = nullptr;  // m_nSize constructed elements, room for m_nCapacity
  int m_nSize = 0;
  int m_nCapacity = 0;
};

#endif  // QLTFSDK_WINTYPES_H
