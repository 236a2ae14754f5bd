// CWebTarget: a writer's web file, written through the web-file plug-in's
// writer object (the companion library found by name).
//
// The object lives in the writer's m_pWebWriter field, which this target
// alone changes: each open makes a new one (ending the previous), End
// destroys it.
//
// Threads: the writer's host thread only.
#ifndef QLTFSDK_WRITER_WEB_TARGET_H
#define QLTFSDK_WRITER_WEB_TARGET_H

#include "companions/webfile/web_file_api.h"
#include "writer/writer_target.h"

class CWebTarget final : public CWriterTarget {
 public:
  // pWebWriter is the writer's field that holds the object (owned; ended
  // with Destroy(1)); it must outlive the target.
  explicit CWebTarget(CQltWebFile*& pWebWriter) : m_pWebWriter(pWebWriter) {}

  // Opens strFileName in a new writer object. lpOptions, when it carries a
  // descriptor, holds nLength bytes of narrow option words ("PublicWebFile",
  // then "PutMode", one separator between). The object as the handle, or
  // null (no object kept) on failure.
  HANDLE Open(const CComBSTR& strFileName, LPSECURITY_ATTRIBUTES lpOptions);
  // Destroys the writer object, if any.
  void End();

  BOOL Write(LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, DWORD dwUserData) override;
  BOOL Seek(LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos, DWORD dwMoveMethod) override;
  BOOL GetSize(PLARGE_INTEGER pSize) override;
  BOOL Read(LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED pOverlapped) override;
  BOOL Close() override;

 private:
  CQltWebFile*& m_pWebWriter;
};

#endif  // QLTFSDK_WRITER_WEB_TARGET_H
