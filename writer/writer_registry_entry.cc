#include "writer/writer_registry_entry.h"

CWriterRegistryEntry::CWriterRegistryEntry(const GUID& guid) : m_guid(guid) { InitializeCriticalSection(&m_cs); }

CWriterRegistryEntry::~CWriterRegistryEntry() {
  Leave();
  DeleteCriticalSection(&m_cs);
}

bool CWriterRegistryEntry::CopyStatus(QLCT_POOL_STATUS_ST* pOut) {
  CAutoLock lock(&m_cs);
  pOut->bstrFileName = m_status.bstrFileName.Copy();
  if (!pOut->bstrFileName && m_status.bstrFileName.m_str) return false;
  pOut->dwFound = 0;
  pOut->nFileLength = m_status.nFileLength;
  pOut->nPendingBytes = m_status.nPendingBytes;
  pOut->dwEstimateMs = static_cast<DWORD>(m_status.nEstimateMs);
  return true;
}

void CWriterRegistryEntry::Update(const CComBSTR& bstrFileName, uint64_t nFileLength, uint64_t nPendingBytes,
                                  int32_t nEstimateMs) {
  CAutoLock lock(&m_cs);
  m_status.bstrFileName = bstrFileName;
  m_status.nFileLength = nFileLength;
  m_status.nPendingBytes = nPendingBytes;
  m_status.nEstimateMs = nEstimateMs;
}

void CWriterRegistryEntry::Progress(uint64_t nFileLength, uint64_t nPendingBytes) {
  CAutoLock lock(&m_cs);
  m_status.nFileLength = nFileLength;
  m_status.nPendingBytes = nPendingBytes;
}

KxWriterStatus CWriterRegistryEntry::Copy() {
  CAutoLock lock(&m_cs);
  return m_status;
}

void CWriterRegistryEntry::Enter() {
  if (!m_bRegistered) m_bRegistered = qlt::pool::RegisterWriter(this) == 1;
}

void CWriterRegistryEntry::Leave() {
  if (!m_bRegistered) return;
  qlt::pool::UnregisterWriter(this);
  m_bRegistered = false;
}
