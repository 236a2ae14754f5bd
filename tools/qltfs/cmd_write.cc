// qltfs write: writes a generated pattern through the SDK's safe writer in
// host writes of a chosen size, with a registered write block size and
// preset size (managed mode), shows progress and throughput, then reads the
// file back and checks every byte.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "errors.h"
#include "progress.h"
#include "qltfsdk/qltfsdk.h"
#include "sizes.h"
#include "text.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const char kCommand[] = "write";

// The pattern repeats every kPeriod bytes: not a multiple of any block or
// slice size, so a misplaced block shows up in the check.
constexpr size_t kPeriod = (1u << 20) + 13;

std::string MiBps(ULONGLONG nBytes, double dSeconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MiB/s", dSeconds > 0 ? static_cast<double>(nBytes) / dSeconds / 1048576 : 0);
  return text;
}

struct WriterDeleter {
  void operator()(QLCT_FileEx* p) const { QLCT_DeleteFileExObj(p); }
};

void RunWrite(const std::string& strOut, const std::string& strSize, const std::string& strSlice,
              const std::string& strBlock, const std::string& strPreset, int nRetry, bool bCache,
              const std::string& strCacheSize) {
  const ULONGLONG nSize = SizeOption(kCommand, "size", strSize, 0, 1ull << 40);
  const ULONGLONG nSlice = SizeOption(kCommand, "slice", strSlice, 1, 256u << 20);
  const ULONGLONG nBlock = SizeOption(kCommand, "block", strBlock, 1, 1u << 30);
  const ULONGLONG nPreset = strPreset.empty() ? 0 : SizeOption(kCommand, "preset", strPreset, 1, 1ull << 40);
  if (nRetry < 0) Fail(kCommand, "bad retry count " + std::to_string(nRetry) + ": give 0 or more", 2);
  const ULONGLONG nCacheSize = SizeOption(kCommand, "cache size", strCacheSize, 1u << 20, 2048u << 20);

  std::error_code ec;
  fs::path path = fs::absolute(strOut, ec);
  if (ec || fs::is_directory(path, ec)) Fail(kCommand, "'" + strOut + "' is not a file name");
  std::wstring wstrPath = ToWide(path.string());  // never through the C locale
  CComBSTR bstrPath(wstrPath.c_str());
  QLT_WriterOption::SetWriteBlockSize(bstrPath, static_cast<int>(nBlock));
  if (nPreset) QLT_WriterOption2::SetPresetFileSize(bstrPath, nPreset);
  if (nRetry > 0) QLT_SetWriteRetrySettings(nRetry, 100);

  std::unique_ptr<QLCT_FileEx, WriterDeleter> writer(QLCT_CreateFileExObj());
  // With --cache: a memory write cache of nCacheSize bytes (its write cache
  // ring a quarter of that), drained by the writer's own thread.
  QLCT_FIlEACCESSINFO_ST info{bCache ? 1 : 0,
                              2,
                              0,
                              static_cast<DWORD>(nCacheSize),
                              nullptr,
                              4194304,
                              bCache ? static_cast<DWORD>(nCacheSize / 4) : 16777216};
  if (!writer || !writer->Initialize(&info)) Fail(kCommand, "cannot set up the writer: " + ErrorText(GetLastError()));
  if (!writer->CreateKXFile(bstrPath, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr))
    Fail(kCommand, CannotText("create", strOut, GetLastError()));

  // Twice the period plus one slice, so any slice can be taken in one piece.
  std::vector<char> pattern(2 * kPeriod + nSlice);
  for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<char>((i % kPeriod) * 131 + (i % kPeriod) / 251);

  ProgressBar bar(static_cast<LONGLONG>(nSize), stderr, ProgressBar::OutputIsTerminal(stderr));
  bar.Start();
  Clock::duration inWrite{};
  uint64_t nDone = 0;
  while (nDone < nSize) {
    DWORD nThis = static_cast<DWORD>(std::min<uint64_t>(nSlice, nSize - nDone));
    DWORD nWritten = 0;
    Clock::time_point tCall = Clock::now();
    BOOL bWritten = writer->WriteFile(pattern.data() + nDone % kPeriod, nThis, &nWritten, nullptr);
    inWrite += Clock::now() - tCall;
    if (!bWritten) {
      DWORD nError = GetLastError();
      bar.Finish(static_cast<LONGLONG>(nDone));
      Fail(kCommand, "writing '" + strOut + "' failed at byte " + std::to_string(nDone) + ": " + ErrorText(nError));
    }
    nDone += nThis;
    bar.Update(static_cast<int>(nDone * 100 / nSize), static_cast<LONGLONG>(nDone), static_cast<LONGLONG>(nDone));
  }
  Clock::time_point tClose = Clock::now();
  BOOL bClosed = writer->CloseHandle();
  double dCloseSeconds = std::chrono::duration<double>(Clock::now() - tClose).count();
  bar.Finish(static_cast<LONGLONG>(nDone));
  if (!bClosed) Fail(kCommand, "closing '" + strOut + "' failed: not every byte reached the file");
  double dSeconds = bar.Seconds();
  std::printf("wrote %llu bytes in %.2f s: %s (slice %llu, block %llu%s%s)\n", static_cast<unsigned long long>(nSize),
              dSeconds, MiBps(nSize, dSeconds).c_str(), static_cast<unsigned long long>(nSlice),
              static_cast<unsigned long long>(nBlock), nPreset ? ", preset " : "",
              nPreset ? std::to_string(nPreset).c_str() : "");
  std::printf("host time in WriteFile %.3f s, close %.3f s%s\n", std::chrono::duration<double>(inWrite).count(),
              dCloseSeconds, bCache ? " (waiting for the cache to drain)" : "");

  // Read back and check.
  uint64_t nOnDisk = fs::file_size(path, ec);
  if (ec || nOnDisk != nSize)
    Fail(kCommand, "'" + strOut + "' holds " + std::to_string(nOnDisk) + " bytes, expected " + std::to_string(nSize));
  std::ifstream in(path, std::ios::binary);
  std::vector<char> buf(4u << 20);
  uint64_t nChecked = 0;
  while (nChecked < nSize) {
    size_t nThis = static_cast<size_t>(std::min<uint64_t>(buf.size(), nSize - nChecked));
    if (!in.read(buf.data(), static_cast<std::streamsize>(nThis))) Fail(kCommand, "cannot read '" + strOut + "' back");
    for (size_t k = 0; k < nThis;) {
      size_t at = static_cast<size_t>((nChecked + k) % kPeriod);
      size_t n = std::min(nThis - k, kPeriod - at);
      if (std::memcmp(buf.data() + k, pattern.data() + at, n) != 0) {
        size_t bad = k;
        while (buf[bad] == pattern[at + bad - k]) ++bad;
        Fail(kCommand, "verify failed: byte " + std::to_string(nChecked + bad) + " differs");
      }
      k += n;
    }
    nChecked += nThis;
  }
  std::printf("verified: %llu bytes read back identical\n", static_cast<unsigned long long>(nSize));
}

}  // namespace

void AddWriteCommand(CLI::App& app) {
  auto* cmd = app.add_subcommand("write", "Write a generated pattern through the safe writer, then verify it");
  auto strOut = std::make_shared<std::string>();
  auto strSize = std::make_shared<std::string>();
  auto strSlice = std::make_shared<std::string>("64K");
  auto strBlock = std::make_shared<std::string>("512K");
  auto strPreset = std::make_shared<std::string>();
  auto nRetry = std::make_shared<int>(0);
  auto bCache = std::make_shared<bool>(false);
  auto strCacheSize = std::make_shared<std::string>("32M");
  cmd->add_option("OUT", *strOut, "File to write (replaced if it exists)")->required();
  cmd->add_option("--size", *strSize, "Bytes to write; suffixes K, M, G")->required();
  cmd->add_option("--slice", *strSlice, "Bytes per host write (default 64K)");
  cmd->add_option("--block", *strBlock, "Write block size registered for the file (default 512K)");
  cmd->add_option("--preset", *strPreset, "Preset size registered for the file; trimmed at close");
  cmd->add_option("--retry", *nRetry, "Retries of a failed block (flushes every block; default 0)");
  cmd->add_flag("--cache", *bCache, "Write through the writer's memory write cache");
  cmd->add_option("--cache-size", *strCacheSize, "Memory of the write cache (default 32M)");
  cmd->callback(
      [=] { RunWrite(*strOut, *strSize, *strSlice, *strBlock, *strPreset, *nRetry, *bCache, *strCacheSize); });
}
