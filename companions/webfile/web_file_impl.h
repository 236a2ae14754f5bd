// CWebFileImpl: what the plug-in's web-file object forwards to once a path
// is open: one implementation per kind of store (S3 objects and plain
// HTTP(S) files; FTP files). Results follow CQltWebFile's rules; a failing
// call sets the thread's last error.
//
// Thread rule: one thread at a time, as for the web-file object.
#ifndef QLTFSDK_COMPANIONS_WEBFILE_WEB_FILE_IMPL_H
#define QLTFSDK_COMPANIONS_WEBFILE_WEB_FILE_IMPL_H

#include <cstdint>

#include "qltfsdk/wintypes.h"

namespace qltweb {

// Options given to the object before its path.
struct WebFileOptions {
  bool m_bPublic = false;    // "PublicWebFile": x-amz-acl: public-read
  bool m_bPutMode = false;   // "PutMode": one PUT at close
  bool m_bReadOnly = false;  // "ReadOnly": open an existing file for reading
};

class CWebFileImpl {
 public:
  virtual ~CWebFileImpl() = default;
  virtual int64_t GetSize() = 0;
  virtual int64_t Seek(int64_t nDistance, int nMethod) = 0;
  virtual int Read(void* pBuffer, DWORD nCount) = 0;
  virtual int Write(const void* pBuffer, DWORD nCount) = 0;
  // 1 when everything written is stored; 0 otherwise (a failed upload is
  // aborted on the store first).
  virtual int Close() = 0;
  // Ends the file without storing it (the object is being destroyed unclosed).
  virtual void Abandon() = 0;
};

// New position for a seek from pos in a file of size; -1 with
// ERROR_NEGATIVE_SEEK for a result below 0, ERROR_INVALID_PARAMETER for an
// unknown method.
int64_t SeekTarget(int64_t pos, int64_t size, int64_t nDistance, int nMethod);

}  // namespace qltweb

#endif  // QLTFSDK_COMPANIONS_WEBFILE_WEB_FILE_IMPL_H
