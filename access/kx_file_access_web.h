// KxFileAccessWeb: the read-only back-end for files named by URLs
// ("oss://bucket/key", "http://...", "https://..."), read through the web-file
// plug-in (QLT_WebFileReader).
//
// OpenFile(path, 1) makes one plug-in object, gives it the option word
// "ReadOnly" and then the path; the plug-in learns the size with a HEAD and
// reads in large ranged GETs of its own, so the accessor's asynchronous mode
// adds nothing: EnableAsyncRead accepts the request and reads stay on the
// caller's thread. Writing and other modes are refused with 0 (the writer
// writes web files). A failed open keeps the plug-in's last error.
//
// Threads: one caller thread at a time; no thread of its own.
#ifndef QLTFSDK_ACCESS_KX_FILE_ACCESS_WEB_H
#define QLTFSDK_ACCESS_KX_FILE_ACCESS_WEB_H

#include "access/kx_file_access_base.h"

class CQltWebFile;

class KxFileAccessWeb : public KxFileAccessBase {
 public:
  KxFileAccessWeb() = default;
  ~KxFileAccessWeb() override;

  // Mode 1 only: closes any file, then opens path through the plug-in. 1 =
  // open; 0 with the last error set (no plug-in: ERROR_MOD_NOT_FOUND).
  int OpenFile(CComBSTR strPath, DWORD nMode) override;
  int EnableAsyncWrite(int bEnable, int nBufferSize) override { return 0; }
  int EnableAsyncRead(int bEnable, int nBufferSize) override { return m_pFile ? 1 : 0; }
  int GetAccessMode(DWORD& nMode) override;
  int SetReadBufferSize(DWORD nSize) override { return m_pFile ? 1 : 0; }
  // Bytes read (a null buffer skips them); 0 at the end or on failure.
  int Read(BYTE* pBuffer, int nCount) override;
  __int64 GetPosition() override { return m_pFile ? m_nPos : 0; }
  // Moves to nPos (beyond the end allowed; reads there give 0). 0 with
  // ERROR_NEGATIVE_SEEK for a negative position.
  int SetPosition(__int64 nPos) override;
  int Write(const BYTE* pBuffer, int nCount) override { return 0; }
  int CloseFile() override;

 private:
  CQltWebFile* m_pFile = nullptr;  // owned (ended with Destroy(1)); caller thread only
  __int64 m_nPos = 0;              // position of the next byte read
};

#endif  // QLTFSDK_ACCESS_KX_FILE_ACCESS_WEB_H
