// CWriterRegistryEntry: a writer's status record and its place in the
// registry of files being written.
//
// The writer updates the record (its file, its length, the bytes it has
// accepted but not yet counted on disk) and lists itself while a local file
// is open; the registry copies the record out for hosts that ask about a
// file being written. The record has its own lock, which the registry takes
// after its writer-list lock.
//
// Threads: Update, Progress, Copy and CopyStatus may be called from any
// thread; Enter and Leave from the writer's host thread only, never while
// the record's lock is held.
#ifndef QLTFSDK_WRITER_WRITER_REGISTRY_ENTRY_H
#define QLTFSDK_WRITER_WRITER_REGISTRY_ENTRY_H

#include <cstdint>

#include "platform/platform.h"
#include "platform/thread_annotations.h"
#include "pool/registry.h"

// The writer's status, as the registry of files being written reads it.
struct KxWriterStatus {
  CComBSTR bstrFileName;       // the open file's name
  int32_t bFound = 0;          // set by the registry's lookup, not here
  uint64_t nFileLength = 0;    // bytes
  uint64_t nPendingBytes = 0;  // accepted but not counted on disk
  int32_t nEstimateMs = 0;     // time to write the pending bytes
};

class CWriterRegistryEntry final : public qlt::pool::CWriterStatusSource {
 public:
  // guid is the writer's identity, fixed for the entry's lifetime.
  explicit CWriterRegistryEntry(const GUID& guid);
  // Leaves the registry if still listed.
  ~CWriterRegistryEntry();
  CWriterRegistryEntry(const CWriterRegistryEntry&) = delete;
  CWriterRegistryEntry& operator=(const CWriterRegistryEntry&) = delete;

  GUID WriterGuid() const override { return m_guid; }
  // See CWriterStatusSource: false when the name cannot be copied.
  bool CopyStatus(QLCT_POOL_STATUS_ST* pOut) override EXCLUDES(m_cs);

  // Replaces the record's name, length, pending bytes and estimate.
  void Update(const CComBSTR& bstrFileName, uint64_t nFileLength, uint64_t nPendingBytes, int32_t nEstimateMs)
      EXCLUDES(m_cs);
  // Replaces only the length and the pending bytes (after each write).
  void Progress(uint64_t nFileLength, uint64_t nPendingBytes) EXCLUDES(m_cs);
  // A copy of the record.
  KxWriterStatus Copy() EXCLUDES(m_cs);

  // Lists the writer (once; a second Enter does nothing). Host thread.
  void Enter();
  // Takes the writer off the list if it is listed. Host thread.
  void Leave();

 private:
  const GUID m_guid;
  CRITICAL_SECTION m_cs;
  KxWriterStatus m_status GUARDED_BY(m_cs);
  bool m_bRegistered = false;  // host thread only
};

#endif  // QLTFSDK_WRITER_WRITER_REGISTRY_ENTRY_H
