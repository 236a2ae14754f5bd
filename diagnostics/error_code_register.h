// The utility library's error-code register as one writer uses it.
//
// The constructor loads "qltUtilBase.dll" by name and resolves its four
// register functions; when the library or any function is missing, the
// object keeps no register and every call is a no-op, so a host that ships
// without the utility library still works. Reporting never changes the
// outcome of the operation being reported.
//
// One object per writer, made when the writer is made and destroyed with it.
// Report may be called from any of the writer's threads: the function
// pointers are set in the constructor and only read afterwards.
#ifndef QLTFSDK_DIAGNOSTICS_ERROR_CODE_REGISTER_H
#define QLTFSDK_DIAGNOSTICS_ERROR_CODE_REGISTER_H

#include "companions/utilbase/utilbase_api.h"

class CErrorCodeRegister {
 public:
  // Loads the library, resolves "CreateErrorCodeVector", "SetErrorCodeInfo",
  // "GerLastErrorCodeInfo" and "DeleteErrorCodeVector", and calls the first.
  CErrorCodeRegister();
  // Calls DeleteErrorCodeVector and unloads the library, when a register is kept.
  virtual ~CErrorCodeRegister();
  CErrorCodeRegister(const CErrorCodeRegister&) = delete;
  CErrorCodeRegister& operator=(const CErrorCodeRegister&) = delete;

  // True when the register was found and created.
  bool IsAvailable() const { return m_pfnSet != nullptr; }
  // Records nCode and the message (null for none) for the calling thread.
  void Report(int32_t nCode, const wchar_t* pszMessage) const;

 private:
  HMODULE m_hModule = nullptr;                      // loaded library; set once
  PFN_SetErrorCodeInfo m_pfnSet = nullptr;          // set once, in the constructor
  PFN_DeleteErrorCodeVector m_pfnDelete = nullptr;  // set once, in the constructor
};

#endif  // QLTFSDK_DIAGNOSTICS_ERROR_CODE_REGISTER_H
