// CVirtualTarget: a writer's file in the virtual storage, written through
// the storage's file object (the companion library found by name).
//
// The object lives in the writer's m_pVirtualFile field, which this target
// alone changes: each open makes a new one (ending the previous), End
// deletes it. A write the storage takes only in part is counted in the
// writer's failed-write record, which the next close reports.
//
// Threads: the writer's host thread only.
#ifndef QLTFSDK_WRITER_VIRTUAL_TARGET_H
#define QLTFSDK_WRITER_VIRTUAL_TARGET_H

#include <cstdint>

#include "companions/virtualfile/qvf_virtual_file.h"
#include "writer/writer_target.h"

class CVirtualTarget final : public CWriterTarget {
 public:
  // pVirtualFile is the writer's field that holds the object (owned; ended
  // with QltDeleteVirtualFile); nFailedWrites and dwFailError its record of
  // failed writes. All must outlive the target.
  CVirtualTarget(CQVFVirtualFile*& pVirtualFile, uint64_t& nFailedWrites, DWORD& dwFailError)
      : m_pVirtualFile(pVirtualFile), m_nFailedWrites(nFailedWrites), m_dwFailError(dwFailError) {}

  // Opens strFileName in a new storage object; its handle, or null when
  // the object cannot be made or the open fails.
  HANDLE Open(const CComBSTR& strFileName, DWORD dwDesiredAccess, DWORD dwShareMode, DWORD dwCreationDisposition);
  // Deletes the storage object, if any.
  void End();

  BOOL Write(LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, DWORD dwUserData) override;
  BOOL Seek(LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos, DWORD dwMoveMethod) override;
  BOOL GetSize(PLARGE_INTEGER pSize) override;
  BOOL Read(LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED pOverlapped) override;
  BOOL Close() override;

 private:
  CQVFVirtualFile*& m_pVirtualFile;
  uint64_t& m_nFailedWrites;  // WriteFile calls that did not write everything
  DWORD& m_dwFailError;       // last error of the first of them
};

#endif  // QLTFSDK_WRITER_VIRTUAL_TARGET_H
