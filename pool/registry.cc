#include "pool/registry.h"

#include <cstring>
#include <new>
#include <vector>

#include "platform/platform.h"

namespace qlt::pool {
namespace {

bool SameName(BSTR a, BSTR b) { return VarBstrCmp(a, b, LOCALE_USER_DEFAULT, NORM_IGNORECASE) == VARCMP_EQ; }

// Copies every value of src over *dst with a new BSTR of the name, freeing
// dst's old name unless it is the very same string. False (dst untouched)
// when the new name cannot be allocated.
template <class Record>
bool CopyRecord(Record* dst, const Record& src) {
  BSTR name = dst->bstrFileName;
  if (src.bstrFileName != dst->bstrFileName) {
    name = nullptr;
    if (src.bstrFileName) {
      name = SysAllocStringLen(src.bstrFileName, SysStringLen(src.bstrFileName));
      if (!name) return false;
    }
    SysFreeString(dst->bstrFileName);
  }
  *dst = src;
  dst->bstrFileName = name;
  return true;
}

int OutOfMemory() {
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return 0;
}

// One table of records keyed by name; owns the records and their names.
template <class Record>
class CNamedTable {
 public:
  CNamedTable() { InitializeCriticalSection(&m_cs); }
  ~CNamedTable() {
    for (Record& r : m_records) SysFreeString(r.bstrFileName);
    DeleteCriticalSection(&m_cs);
  }
  CNamedTable(const CNamedTable&) = delete;
  CNamedTable& operator=(const CNamedTable&) = delete;

  int Set(const Record* pRecord) {
    if (!pRecord) return 0;
    CAutoLock lock(&m_cs);
    Record* pStored = Find(pRecord->bstrFileName);
    if (pStored) return CopyRecord(pStored, *pRecord) ? 1 : OutOfMemory();
    Record copy{};
    if (!CopyRecord(&copy, *pRecord)) return OutOfMemory();
    try {
      m_records.push_back(copy);
    } catch (const std::bad_alloc&) {
      SysFreeString(copy.bstrFileName);
      return OutOfMemory();
    }
    return 1;
  }

  int Get(Record* pRecord) {
    if (!pRecord) return 0;
    CAutoLock lock(&m_cs);
    Record* pStored = Find(pRecord->bstrFileName);
    if (!pStored) return 0;
    return CopyRecord(pRecord, *pStored) ? 1 : OutOfMemory();
  }

  // Copies the values of the record named name into *pOut, without its name
  // (pOut's name is set to null), so nothing is allocated. False when none.
  bool PeekValues(BSTR name, Record* pOut) {
    CAutoLock lock(&m_cs);
    Record* pStored = Find(name);
    if (!pStored) return false;
    *pOut = *pStored;
    pOut->bstrFileName = nullptr;
    return true;
  }

  int Clear(const Record* pRecord) {
    if (!pRecord) return 0;
    CAutoLock lock(&m_cs);
    Record* pStored = Find(pRecord->bstrFileName);
    if (!pStored) return 0;
    SysFreeString(pStored->bstrFileName);
    m_records.erase(m_records.begin() + (pStored - m_records.data()));
    return 1;
  }

 private:
  // The first record named name, or null.
  Record* Find(BSTR name) REQUIRES(m_cs) {
    for (Record& r : m_records) {
      if (SameName(r.bstrFileName, name)) return &r;
    }
    return nullptr;
  }

  CRITICAL_SECTION m_cs;
  std::vector<Record> m_records GUARDED_BY(m_cs);  // insertion order; names owned
};

// The live writers, in insertion order; not owned.
class CWriterList {
 public:
  CWriterList() { InitializeCriticalSection(&m_cs); }
  ~CWriterList() { DeleteCriticalSection(&m_cs); }
  CWriterList(const CWriterList&) = delete;
  CWriterList& operator=(const CWriterList&) = delete;

  int Register(CWriterStatusSource* pWriter) {
    if (!pWriter) return 0;
    GUID guid = pWriter->WriterGuid();
    CAutoLock lock(&m_cs);
    if (IndexOf(guid) >= 0) return 1;
    try {
      m_writers.push_back(pWriter);
    } catch (const std::bad_alloc&) {
      return OutOfMemory();
    }
    return 1;
  }

  int Unregister(CWriterStatusSource* pWriter) {
    if (!pWriter) return 0;
    GUID guid = pWriter->WriterGuid();
    CAutoLock lock(&m_cs);
    int i = IndexOf(guid);
    if (i < 0) return 0;
    m_writers.erase(m_writers.begin() + i);
    if (m_writers.empty()) m_writers.shrink_to_fit();
    return 1;
  }

  int Find(QLCT_POOL_STATUS_ST* pStatus) {
    if (!pStatus) return 0;
    CAutoLock lock(&m_cs);
    pStatus->dwFound = 0;
    for (CWriterStatusSource* pWriter : m_writers) {
      QLCT_POOL_STATUS_ST local{};
      if (!pWriter->CopyStatus(&local)) return OutOfMemory();
      if (!SameName(local.bstrFileName, pStatus->bstrFileName)) {
        SysFreeString(local.bstrFileName);
        continue;
      }
      // The local copy's name is already new: hand it over instead of copying again.
      SysFreeString(pStatus->bstrFileName);
      *pStatus = local;
      pStatus->dwFound = 1;
      return 1;
    }
    return 0;
  }

 private:
  // Index of the listed writer with this GUID, or -1.
  int IndexOf(const GUID& guid) const REQUIRES(m_cs) {
    for (size_t i = 0; i < m_writers.size(); ++i) {
      GUID listed = m_writers[i]->WriterGuid();
      if (std::memcmp(&listed, &guid, sizeof guid) == 0) return static_cast<int>(i);
    }
    return -1;
  }

  // Taken before a writer's own lock (Find calls CopyStatus with it held);
  // the writer's lock lies behind the interface, so the order is kept by
  // hand: a writer never registers or unregisters while holding its lock.
  CRITICAL_SECTION m_cs;
  std::vector<CWriterStatusSource*> m_writers GUARDED_BY(m_cs);
};

// The three stores: made when the library loads, before any host code can
// call in, and destroyed when it unloads.
CWriterList g_writers;
CNamedTable<QLCT_WRITEFILE_PROPS_ST> g_fileProps;
CNamedTable<QLCT_WRITE_FILE_INDEX_PROPS_ST> g_indexProps;

}  // namespace

int RegisterWriter(CWriterStatusSource* pWriter) { return g_writers.Register(pWriter); }
int UnregisterWriter(CWriterStatusSource* pWriter) { return g_writers.Unregister(pWriter); }
int FindWriterStatus(QLCT_POOL_STATUS_ST* pStatus) { return g_writers.Find(pStatus); }

int SetWriteFileProps(const QLCT_WRITEFILE_PROPS_ST* pRecord) { return g_fileProps.Set(pRecord); }
int GetWriteFileProps(QLCT_WRITEFILE_PROPS_ST* pRecord) { return g_fileProps.Get(pRecord); }
int SetWriteFileIndexProps(const QLCT_WRITE_FILE_INDEX_PROPS_ST* pRecord) { return g_indexProps.Set(pRecord); }
int GetWriteFileIndexProps(QLCT_WRITE_FILE_INDEX_PROPS_ST* pRecord) { return g_indexProps.Get(pRecord); }
int ClearWriteFileIndexProps(const QLCT_WRITE_FILE_INDEX_PROPS_ST* pRecord) { return g_indexProps.Clear(pRecord); }

CacheRequest LookUpCacheRequest(BSTR name) {
  CacheRequest request;
  QLCT_WRITEFILE_PROPS_ST values{};
  if (!g_fileProps.PeekValues(name, &values)) return request;
  request.bFound = true;
  request.dwRequest = values.dwValue1;
  signed char letter = static_cast<signed char>(values.dwValue3 & 0xFFu);
  if (letter > 0) request.cDrive = static_cast<wchar_t>(letter);
  return request;
}

}  // namespace qlt::pool
