// The error-code register, found by name as the SDK's writer finds it.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>

#include "companions/utilbase/utilbase_api.h"
#include "platform/platform.h"

namespace {

using Record = std::pair<int, std::wstring>;  // code and message; code -1 when none

class CompanionErrorRegister : public ::testing::Test {
 protected:
  void SetUp() override {
    m_hModule = LoadLibraryW(QLT_UTILBASE_DLL);
    ASSERT_NE(m_hModule, nullptr) << "qltUtilBase.dll not found by name";
    m_pfnCreate = reinterpret_cast<PFN_CreateErrorCodeVector>(GetProcAddress(m_hModule, "CreateErrorCodeVector"));
    m_pfnSet = reinterpret_cast<PFN_SetErrorCodeInfo>(GetProcAddress(m_hModule, "SetErrorCodeInfo"));
    m_pfnGet = reinterpret_cast<PFN_GerLastErrorCodeInfo>(GetProcAddress(m_hModule, "GerLastErrorCodeInfo"));
    m_pfnDelete = reinterpret_cast<PFN_DeleteErrorCodeVector>(GetProcAddress(m_hModule, "DeleteErrorCodeVector"));
    ASSERT_TRUE(m_pfnCreate && m_pfnSet && m_pfnGet && m_pfnDelete);
    ASSERT_EQ(m_pfnCreate(), 1);
  }
  void TearDown() override {
    if (m_pfnDelete) m_pfnDelete();
    if (m_hModule) FreeLibrary(m_hModule);
  }
  // Reports code and message as the calling thread, as the writer does; the
  // message is freed on return, so the register must keep its own copy.
  void Report(int nCode, const wchar_t* pszMessage) {
    CComBSTR strMessage(pszMessage);
    ErrorCodeRecord record{GetCurrentThreadId(), nCode, strMessage.m_str, {}};
    ASSERT_EQ(m_pfnSet(&record), 1);
  }
  // The calling thread's last record.
  Record Last() {
    ErrorCodeRecord record{};
    if (m_pfnGet(&record) != 1) return {-1, L""};
    EXPECT_EQ(record.nThreadId, GetCurrentThreadId());
    CComBSTR strMessage;
    strMessage.Attach(record.bstrMessage);
    return {record.nErrorCode, strMessage.m_str ? std::wstring(strMessage.m_str) : L""};
  }

  HMODULE m_hModule = nullptr;
  PFN_CreateErrorCodeVector m_pfnCreate = nullptr;
  PFN_SetErrorCodeInfo m_pfnSet = nullptr;
  PFN_GerLastErrorCodeInfo m_pfnGet = nullptr;
  PFN_DeleteErrorCodeVector m_pfnDelete = nullptr;
};

TEST_F(CompanionErrorRegister, KeepsACopyOfTheLastRecordOfEachThread) {
  Report(5, L"first");
  Report(200, L"write file error");
  Record other[2];
  std::thread a([&] {
    Report(200, L"");
    other[0] = Last();
  });
  std::thread b([&] { other[1] = Last(); });  // a thread that reported nothing
  a.join();
  b.join();
  EXPECT_EQ(other[0], Record(200, L""));
  EXPECT_EQ(other[1].first, -1);
  EXPECT_EQ(Last(), Record(200, L"write file error"));
  EXPECT_EQ(m_pfnSet(nullptr), 0);
  EXPECT_EQ(m_pfnGet(nullptr), 0);
  Report(32, nullptr);
  EXPECT_EQ(Last(), Record(32, L""));
}

TEST_F(CompanionErrorRegister, LastUserEmptiesTheRegister) {
  ASSERT_EQ(m_pfnCreate(), 1);  // a second user, as with two writers
  Report(200, L"kept");
  ASSERT_EQ(m_pfnDelete(), 1);
  EXPECT_EQ(Last().first, 200);  // the first user still holds it
  ASSERT_EQ(m_pfnDelete(), 1);
  EXPECT_EQ(Last().first, -1);
  EXPECT_EQ(m_pfnDelete(), 0);  // no reference left
  m_pfnDelete = nullptr;        // TearDown has nothing to give back
}

}  // namespace
