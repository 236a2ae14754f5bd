// The error-code register: one last record per thread.
#include "companions/utilbase/error_register.h"

#include <cstring>
#include <string>
#include <unordered_map>

#include "platform/contain.h"
#include "platform/platform.h"

namespace {

struct StoredRecord {
  int32_t nErrorCode = 0;
  std::wstring strMessage;
};

// The register.
struct Register {
  Register() { InitializeCriticalSection(&m_cs); }
  CRITICAL_SECTION m_cs;
  int m_nRefs GUARDED_BY(m_cs) = 0;                                       // users between Create and Delete
  std::unordered_map<uint32_t, StoredRecord> m_mapLast GUARDED_BY(m_cs);  // thread id -> its last record
};

// Made when the library loads, before any host object can call in, and
// destroyed when it unloads, after every library and executable that needs
// it has run its own static destructors.
Register g_register;

Register& TheRegister() { return g_register; }

}  // namespace

extern "C" int CreateErrorCodeVector() {
  return QltContain(0, [] {
    Register& r = TheRegister();
    CAutoLock lock(&r.m_cs);
    ++r.m_nRefs;
    return 1;
  });
}

// Each call is contained: out of memory, it fails with 0
// (ERROR_NOT_ENOUGH_MEMORY) and the register keeps its previous state.
extern "C" int SetErrorCodeInfo(ErrorCodeRecord* pRecord) {
  if (!pRecord) return 0;
  return QltContain(0, [pRecord] {
    StoredRecord stored;
    stored.nErrorCode = pRecord->nErrorCode;
    if (pRecord->bstrMessage) stored.strMessage.assign(pRecord->bstrMessage, SysStringLen(pRecord->bstrMessage));
    uint32_t nThread = pRecord->nThreadId != 0 ? pRecord->nThreadId : GetCurrentThreadId();
    Register& r = TheRegister();
    CAutoLock lock(&r.m_cs);
    r.m_mapLast[nThread] = std::move(stored);
    return 1;
  });
}

extern "C" int GerLastErrorCodeInfo(ErrorCodeRecord* pRecord) {
  if (!pRecord) return 0;
  return QltContain(0, [pRecord] {
    uint32_t nThread = GetCurrentThreadId();
    StoredRecord found;
    {
      Register& r = TheRegister();
      CAutoLock lock(&r.m_cs);
      auto it = r.m_mapLast.find(nThread);
      if (it == r.m_mapLast.end()) return 0;
      found = it->second;
    }
    BSTR bstrMessage = SysAllocStringLen(found.strMessage.data(), static_cast<UINT>(found.strMessage.size()));
    if (!bstrMessage) return 0;
    pRecord->nThreadId = nThread;
    pRecord->nErrorCode = found.nErrorCode;
    pRecord->bstrMessage = bstrMessage;
    std::memset(pRecord->reserved, 0, sizeof(pRecord->reserved));
    return 1;
  });
}

extern "C" int DeleteErrorCodeVector() {
  return QltContain(0, [] {
    Register& r = TheRegister();
    CAutoLock lock(&r.m_cs);
    if (r.m_nRefs == 0) return 0;
    if (--r.m_nRefs == 0) r.m_mapLast.clear();
    return 1;
  });
}
