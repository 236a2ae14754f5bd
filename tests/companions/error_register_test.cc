// The error-code register, found by name as the SDK's writer finds it:
// records per thread, users counted, allocation failures contained.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>

#include "companions/utilbase/utilbase_api.h"
#include "platform/platform.h"
#include "tests/support/alloc_fault.h"

namespace {

using Record = std::pair<int, std::wstring>;  // code and message; code -1 when none

TEST(CompanionErrorRegister, KeepsACopyOfEachThreadsLastRecordUntilTheLastUserLeaves) {
  HMODULE hModule = LoadLibraryW(QLT_UTILBASE_DLL);
  auto pfnCreate = reinterpret_cast<PFN_CreateErrorCodeVector>(GetProcAddress(hModule, "CreateErrorCodeVector"));
  auto pfnSet = reinterpret_cast<PFN_SetErrorCodeInfo>(GetProcAddress(hModule, "SetErrorCodeInfo"));
  auto pfnGet = reinterpret_cast<PFN_GerLastErrorCodeInfo>(GetProcAddress(hModule, "GerLastErrorCodeInfo"));
  auto pfnDelete = reinterpret_cast<PFN_DeleteErrorCodeVector>(GetProcAddress(hModule, "DeleteErrorCodeVector"));
  ASSERT_TRUE(pfnCreate && pfnSet && pfnGet && pfnDelete);
  ASSERT_EQ(pfnCreate(), 1);
  // Reports as the calling thread, as the writer does; the message is freed
  // on return, so the register must keep its own copy.
  auto report = [&](int nCode, const wchar_t* pszMessage) {
    CComBSTR strMessage(pszMessage);
    ErrorCodeRecord record{GetCurrentThreadId(), nCode, strMessage.m_str, {}};
    EXPECT_EQ(pfnSet(&record), 1);
  };
  auto last = [&]() -> Record {  // the calling thread's last record
    ErrorCodeRecord record{};
    if (pfnGet(&record) != 1) return {-1, L""};
    EXPECT_EQ(record.nThreadId, GetCurrentThreadId());
    CComBSTR strMessage;
    strMessage.Attach(record.bstrMessage);
    return {record.nErrorCode, strMessage.m_str ? std::wstring(strMessage.m_str) : L""};
  };
  report(200, L"write file error");
  Record other[2];
  std::thread a([&] {
    report(200, L"");
    other[0] = last();
  });
  a.join();
  std::thread([&] { other[1] = last(); }).join();  // a thread that reported nothing
  EXPECT_EQ(other[0], Record(200, L""));
  EXPECT_EQ(other[1].first, -1);
  EXPECT_EQ(last(), Record(200, L"write file error"));
  EXPECT_EQ(pfnSet(nullptr), 0);
  EXPECT_EQ(pfnGet(nullptr), 0);
  report(32, nullptr);
  EXPECT_EQ(last(), Record(32, L""));
  // Out of memory at each allocation point: the call fails and says why, or
  // it succeeds and its record is the one kept.
  CComBSTR message(L"disk gone");
  int nResult = 0;
  DWORD nError = 0;
  EXPECT_GT(ForEachAllocationFailure(
                [&](int n) {
                  ErrorCodeRecord record{GetCurrentThreadId(), 1000 + n, message.m_str, {}};
                  nResult = pfnSet(&record);
                  nError = GetLastError();
                },
                [&](int n, bool) {
                  EXPECT_TRUE(nResult == 1 || (nResult == 0 && nError == ERROR_NOT_ENOUGH_MEMORY)) << n;
                  EXPECT_TRUE(nResult != 1 || last() == Record(1000 + n, L"disk gone")) << n;
                }),
            1);
  report(32, nullptr);
  ASSERT_EQ(pfnCreate(), 1);  // a second user, as with two writers
  ASSERT_EQ(pfnDelete(), 1);
  EXPECT_EQ(last().first, 32);  // the first user still holds it
  ASSERT_EQ(pfnDelete(), 1);
  EXPECT_EQ(last().first, -1);
  EXPECT_EQ(pfnDelete(), 0);  // no reference left
  FreeLibrary(hModule);
}

}  // namespace
