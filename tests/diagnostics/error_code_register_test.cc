// The error-code register found by name, and a host that hides the utility
// library.
#include <gtest/gtest.h>

#include "diagnostics/error_code_register.h"
#include "platform/platform.h"

namespace {

TEST(ErrorCodeRegisterTest, ReportsReachTheRegisterFoundByName) {
  CErrorCodeRegister reg;
  ASSERT_TRUE(reg.IsAvailable());
  SetLastError(87);
  reg.Report(200, L"write file error");
  EXPECT_EQ(GetLastError(), 87u);

  HMODULE h = LoadLibraryW(L"qltUtilBase.dll");
  ASSERT_NE(h, nullptr);
  auto pfnLast = reinterpret_cast<PFN_GerLastErrorCodeInfo>(GetProcAddress(h, "GerLastErrorCodeInfo"));
  ASSERT_NE(pfnLast, nullptr);
  ErrorCodeRecord last{};
  ASSERT_EQ(pfnLast(&last), 1);
  EXPECT_EQ(last.nThreadId, GetCurrentThreadId());
  EXPECT_EQ(last.nErrorCode, 200);
  EXPECT_TRUE(CComBSTR(last.bstrMessage) == L"write file error");
  SysFreeString(last.bstrMessage);
  FreeLibrary(h);
}

TEST(ErrorCodeRegisterTest, HostWithoutUtilityLibraryStillWorks) {
  qlt::fault::Rule hide;
  hide.ops = qlt::fault::kLoadLibrary;
  hide.pathPattern = L"qltUtilBase.dll";
  hide.times = -1;
  hide.error = ERROR_MOD_NOT_FOUND;
  qlt::fault::ScopedFault f(hide);
  CErrorCodeRegister reg;
  EXPECT_FALSE(reg.IsAvailable());
  reg.Report(200, nullptr);  // a no-op, not a crash
  EXPECT_EQ(f.Fired(), 1);
}

}  // namespace
