// The web-file plug-in (QLT_WebFileReader): what the SDK calls in it.
//
// The plug-in is a shared library found by name at run time. It exports two
// C functions, looked up by the names "WebFileIsExist" and
// "CreateWebFileWriter", and makes web-file objects that its users call only
// through the virtual operations below, in exactly this order in the virtual
// table with no others between them. A plug-in may add operations after them.
//
// Threading: the two functions may be called from any thread; one web-file
// object serves one thread at a time.
#ifndef QLTFSDK_COMPANIONS_WEBFILE_WEB_FILE_API_H
#define QLTFSDK_COMPANIONS_WEBFILE_WEB_FILE_API_H

#include "qltfsdk/wintypes.h"

#define QLT_WEBFILE_DLL L"QLT_WebFileReader.dll"

// One file named by a URL, for writing (and sizing, seeking, reading back).
class CQltWebFile {
 public:
  // Ends the object; with 1 its memory is freed too (objects come from
  // CreateWebFileWriter, so only the plug-in knows how).
  virtual void Destroy(unsigned int nFlags) = 0;
  // Gives the object an option word ("PublicWebFile", "PutMode") or, last,
  // the path, which opens the file. The caller keeps ownership of text.
  // For the path: above 0 = open. Results for option words are ignored.
  virtual int SetOrOpen(BSTR text) = 0;
  // Size of the open file in bytes; below 0 = failure.
  virtual __int64 GetSize() = 0;
  // Moves to nDistance from the start (nMethod 0), the current position (1)
  // or the end (2). The new position; below 0 = failure.
  virtual __int64 Seek(__int64 nDistance, int nMethod) = 0;
  // Reads up to nCount bytes. Bytes read; 0 or below = failure.
  virtual int Read(void* pBuffer, DWORD nCount) = 0;
  // Writes nCount bytes. Bytes written; 0 or below = failure.
  virtual int Write(const void* pBuffer, DWORD nCount) = 0;
  // Closes the file. 1 = closed.
  virtual int Close() = 0;

 protected:
  // Objects end only through Destroy.
  ~CQltWebFile() = default;
};

// "WebFileIsExist": non-zero when the file at the URL exists. The callee owns
// bstrPath and frees it with SysFreeString. Standard calling convention.
typedef int(WINAPI* PFN_WebFileIsExist)(BSTR bstrPath);
// "CreateWebFileWriter": a new web-file object, or null. The caller ends it
// with Destroy(1).
typedef CQltWebFile* (*PFN_CreateWebFileWriter)();

#endif  // QLTFSDK_COMPANIONS_WEBFILE_WEB_FILE_API_H
