// Shared pieces of the writer tests: a fixture with a temporary folder and
// the settings restored afterwards, a byte pattern, fault rules and the
// utility library's last error record.
#ifndef QLTFSDK_TESTS_WRITER_WRITER_TEST_UTIL_H
#define QLTFSDK_TESTS_WRITER_WRITER_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "diagnostics/module_paths.h"
#include "diagnostics/sdk_settings.h"
#include "platform/platform.h"
#include "qltfsdk/qltfsdk.h"
#include "tests/support/temp_dir.h"

namespace qlt::test {

// Byte i of the generated content: not periodic at block or page sizes.
inline std::string Pattern(uint64_t from, size_t n) {
  std::string s(n, '\0');
  for (size_t k = 0; k < n; ++k) {
    uint64_t i = from + k;
    s[k] = static_cast<char>((i * 131u + (i >> 11) * 7u + 3u) & 0xffu);
  }
  return s;
}

struct FileExDeleter {
  void operator()(QLCT_FileEx* p) const { QLCT_DeleteFileExObj(p); }
};
using FileExPtr = std::unique_ptr<QLCT_FileEx, FileExDeleter>;

// A fault rule on files matching pattern; the default only counts the calls.
inline qlt::fault::Rule FaultRule(unsigned ops, const std::wstring& pattern,
                                  qlt::fault::Action action = qlt::fault::Action::kDelay, int nth = 1, int times = -1) {
  qlt::fault::Rule r;
  r.ops = ops, r.pathPattern = pattern, r.action = action, r.nth = nth, r.times = times;
  return r;
}

class WriterTest : public ::testing::Test {
 public:
  void SetUp() override {
    setenv("QLTFS_LOG_ROOT", m_dir.file("logbook").c_str(), 1);
    SetModuleDirectoryOverride(m_dir.wpath());
  }
  void TearDown() override {
    qlt::fault::DisarmAll();
    SdkSettings.WriteRetryCount = 0;
    SdkSettings.WriteRetryTime = 0;
    SdkSettings.LogFileOn = 0;
    SetModuleDirectoryOverride(L"");
    unsetenv("QLTFS_LOG_ROOT");
  }
  // A writer initialised with the given cache and operating modes; null on failure.
  static FileExPtr MakeWriter(int nOpMode = 1, int nCacheMode = 0, DWORD nPoolBytes = 33554432) {
    FileExPtr w(QLCT_CreateFileExObj());
    QLCT_FIlEACCESSINFO_ST info{nCacheMode, nOpMode, 0, nPoolBytes, nullptr, 4194304, nPoolBytes / 2};
    if (w && !w->Initialize(&info)) w.reset();
    return w;
  }
  // Creates name in the test folder with block size nBlock registered.
  HANDLE Create(QLCT_FileEx& w, const std::string& name, int nBlock) {
    std::wstring path = m_dir.wpath(name);
    if (nBlock > 0) QLT_WriterOption::SetWriteBlockSize(CComBSTR(path.c_str()), nBlock);
    return w.CreateKXFile(CComBSTR(path.c_str()), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                          FILE_ATTRIBUTE_NORMAL, nullptr);
  }
  // Writes n pattern bytes starting at pattern offset from; the call's result.
  static BOOL Put(QLCT_FileEx& w, uint64_t from, size_t n, DWORD userData = 0) {
    std::string data = Pattern(from, n);
    DWORD written = 0;
    BOOL ok = w.WriteFile(data.data(), static_cast<DWORD>(n), &written, nullptr, userData);
    EXPECT_EQ(written, n);
    return ok;
  }
  uint64_t SizeOf(const std::string& name) const { return std::filesystem::file_size(m_dir.file(name)); }
  std::string Content(const std::string& name) const { return ReadWholeFile(m_dir.file(name)); }
  // Lines of the error log (split at CR LF).
  std::vector<std::string> ErrorLogLines() const {
    std::string text = ReadWholeFile(m_dir.file("sdk-log/ErrorLog/ErrorLogFileForTarnwell.txt"));
    std::vector<std::string> lines;
    size_t at = 0;
    for (size_t end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
      lines.push_back(text.substr(at, end - at));
    return lines;
  }
  void EnableErrorLog() {
    std::filesystem::create_directories(m_dir.file("sdk-log/ErrorLog"));
    SdkSettings.LogFileOn = 1;
  }

  TempDir m_dir;
};

}  // namespace qlt::test

#endif  // QLTFSDK_TESTS_WRITER_WRITER_TEST_UTIL_H
