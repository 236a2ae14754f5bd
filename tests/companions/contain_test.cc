// Out of memory at every allocation point of the companions' exported calls:
// each call fails with its documented result (or succeeds), no exception
// leaves it, and the library works normally afterwards.
#include <gtest/gtest.h>

#include <string>

#include "companions/logbook/logbook_api.h"
#include "companions/utilbase/utilbase_api.h"
#include "platform/platform.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/temp_dir.h"

namespace {

// A failed call must say why.
void ExpectSucceededOrOutOfMemory(int nResult, int nSuccess, int nFailure, DWORD nError, int n) {
  SCOPED_TRACE("allocation " + std::to_string(n));
  EXPECT_TRUE(nResult == nSuccess || nResult == nFailure) << nResult;
  if (nResult != nSuccess) {
    EXPECT_EQ(nError, static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
  }
}

TEST(CompanionContainTest, WriterOptionsKeepTheirTableWhenMemoryRunsOut) {
  const CComBSTR name(L"C:\\data\\contain.dat");
  const int nDefault = QLT_WriterOption::GetWriteBlockSize(CComBSTR(L"C:\\no\\entry.dat"));
  int nResult = 0;
  DWORD nError = 0;
  // Every test below also checks that the calls do allocate, or it would
  // prove nothing.
  EXPECT_GT(ForEachAllocationFailure(
                [&](int) {
                  nResult = QLT_WriterOption::SetWriteBlockSize(name, 4096);
                  nError = GetLastError();
                },
                [&](int n, bool) {
                  ExpectSucceededOrOutOfMemory(nResult, 1, 0, nError, n);
                  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(name), nResult == 1 ? 4096 : nDefault);
                  QLT_WriterOption::ClearItem(name);
                }),
            1);
  // A lookup that runs out of memory answers with the default block size.
  QLT_WriterOption::SetWriteBlockSize(name, 8192);
  ForEachAllocationFailure([&](int) { nResult = QLT_WriterOption::GetWriteBlockSize(name); },
                           [&](int, bool) { EXPECT_TRUE(nResult == 8192 || nResult == nDefault) << nResult; });
  QLT_WriterOption::ClearItem(name);
}

TEST(CompanionContainTest, ErrorRegisterFailsCleanlyWhenMemoryRunsOut) {
  HMODULE hModule = LoadLibraryW(QLT_UTILBASE_DLL);
  ASSERT_NE(hModule, nullptr);
  auto pfnCreate = reinterpret_cast<PFN_CreateErrorCodeVector>(GetProcAddress(hModule, "CreateErrorCodeVector"));
  auto pfnSet = reinterpret_cast<PFN_SetErrorCodeInfo>(GetProcAddress(hModule, "SetErrorCodeInfo"));
  auto pfnLast = reinterpret_cast<PFN_GerLastErrorCodeInfo>(GetProcAddress(hModule, "GerLastErrorCodeInfo"));
  auto pfnDelete = reinterpret_cast<PFN_DeleteErrorCodeVector>(GetProcAddress(hModule, "DeleteErrorCodeVector"));
  ASSERT_TRUE(pfnCreate && pfnSet && pfnLast && pfnDelete);
  ASSERT_EQ(pfnCreate(), 1);

  CComBSTR message(L"disk gone");
  int nResult = 0;
  DWORD nError = 0;
  EXPECT_GT(ForEachAllocationFailure(
                [&](int n) {
                  ErrorCodeRecord record{0, 1000 + n, message.m_str, {}};
                  nResult = pfnSet(&record);
                  nError = GetLastError();
                },
                [&](int n, bool) {
                  ExpectSucceededOrOutOfMemory(nResult, 1, 0, nError, n);
                  ErrorCodeRecord last{};
                  if (nResult == 1 && pfnLast(&last) == 1) {
                    EXPECT_EQ(last.nErrorCode, 1000 + n);
                    SysFreeString(last.bstrMessage);
                  }
                }),
            1);
  ForEachAllocationFailure(
      [&](int) {
        ErrorCodeRecord last{};
        nResult = pfnLast(&last);
        nError = GetLastError();
        if (nResult == 1) SysFreeString(last.bstrMessage);
      },
      [&](int n, bool) { ExpectSucceededOrOutOfMemory(nResult, 1, 0, nError, n); });
  EXPECT_EQ(pfnDelete(), 1);
  FreeLibrary(hModule);
}

// Logging reports no failure: a line that cannot be made is dropped, and the
// next one is written whole.
TEST(CompanionContainTest, LogBookDropsWhatItCannotWriteAndGoesOn) {
  TempDir dir;
  setenv("QLTFS_LOG_ROOT", dir.path().c_str(), 1);
  EXPECT_GT(ForEachAllocationFailure(
                [&](int n) {
                  QLT_LogBookU log;
                  log.ConfigName(CComBSTR(L"contain"));
                  log << CComBSTR(L"line") << n << 2.5 << endl;
                },
                [&](int, bool) {}),
            1);
  QLT_LogBookU log;
  ASSERT_EQ(log.ConfigName(CComBSTR(L"contain")), 1);
  log << CComBSTR(L"after") << endl;
  log.Flush();
  const std::string text = ReadWholeFile(log.FilePath());
  EXPECT_NE(text.find("after\n"), std::string::npos) << text;
  unsetenv("QLTFS_LOG_ROOT");
}

TEST(CompanionContainTest, EasyFileReadFailsCleanlyWhenMemoryRunsOut) {
  TempDir dir;
  const std::string data(100000, 'e');
  ASSERT_TRUE(WriteWholeFile(dir.file("easy.dat"), data));
  const CComBSTR path(dir.wpath("easy.dat").c_str());
  int nResult = 0;
  DWORD nError = 0;
  EXPECT_GT(ForEachAllocationFailure(
                [&](int) {
                  QLT_EasyFile* pFile = new (std::nothrow) QLT_EasyFile;
                  if (!pFile) return;
                  nResult = pFile->Initialize(false) && pFile->Open(path) ? 0 : -2;
                  unsigned char buffer[1000];
                  if (nResult == 0) nResult = pFile->Read(buffer, sizeof buffer, 0);
                  nError = GetLastError();
                  pFile->Close();
                  delete pFile;
                },
                [&](int n, bool bFired) {
                  if (!bFired) {
                    EXPECT_EQ(nResult, 1000);
                  }
                  if (nResult == -1 || nResult == -2) {
                    EXPECT_EQ(nError, static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY)) << n;
                  }
                }),
            1);
}

}  // namespace
