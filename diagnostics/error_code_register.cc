#include "diagnostics/error_code_register.h"

#include "platform/platform.h"

CErrorCodeRegister::CErrorCodeRegister() {
  m_hModule = LoadLibraryW(QLT_UTILBASE_DLL);
  if (!m_hModule) return;
  auto pfnCreate = reinterpret_cast<PFN_CreateErrorCodeVector>(GetProcAddress(m_hModule, "CreateErrorCodeVector"));
  auto pfnSet = reinterpret_cast<PFN_SetErrorCodeInfo>(GetProcAddress(m_hModule, "SetErrorCodeInfo"));
  auto pfnLast = reinterpret_cast<PFN_GerLastErrorCodeInfo>(GetProcAddress(m_hModule, "GerLastErrorCodeInfo"));
  auto pfnDelete = reinterpret_cast<PFN_DeleteErrorCodeVector>(GetProcAddress(m_hModule, "DeleteErrorCodeVector"));
  // A library without the whole register stays loaded but unused.
  if (!pfnCreate || !pfnSet || !pfnLast || !pfnDelete) return;
  pfnCreate();
  m_pfnSet = pfnSet;
  m_pfnDelete = pfnDelete;
}

CErrorCodeRegister::~CErrorCodeRegister() {
  if (!m_pfnDelete) return;
  m_pfnDelete();
  FreeLibrary(m_hModule);
}

void CErrorCodeRegister::Report(int32_t nCode, const wchar_t* pszMessage) const {
  if (!m_pfnSet) return;
  DWORD nLastError = GetLastError();  // reporting must not disturb the caller's last error
  ErrorCodeRecord record{};
  record.nThreadId = GetCurrentThreadId();
  record.nErrorCode = nCode;
  record.bstrMessage = SysAllocString(pszMessage ? pszMessage : L"");
  m_pfnSet(&record);
  SysFreeString(record.bstrMessage);
  SetLastError(nLastError);
}
