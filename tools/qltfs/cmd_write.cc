// qltfs write: writes a generated pattern through the SDK's safe writer in
// host writes of a chosen size, with a registered write block size and
// preset size (managed mode), shows progress and throughput, then reads the
// file back and checks every byte. The file may be local, a "qvf:\" path or
// an object of an S3-compatible store ("oss://bucket/key", through the web
// plug-in; read back through the accessor).
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
#include "places.h"
#include "progress.h"
#include "qltfsdk/qltfsdk.h"
#include "sizes.h"
#include "text.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const char kCommand[] = "write";

// The write cache's memory: the pool takes at most 2 GiB - 1, and the tool
// offers whole mebibytes up to 1 GiB.
constexpr ULONGLONG kMinCache = 1u << 20;
constexpr ULONGLONG kMaxCache = 1u << 30;

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

// The written file for the read-back: a local file directly, a
// virtual-storage file through the accessor (the only way to reach it).
// Used on the command's thread only.
class ReadBack {
 public:
  ReadBack(const std::string& strPath, bool bVirtual) : m_bVirtual(bVirtual) {
    if (bVirtual) {
      m_bOpen = m_access.OpenFile(CComBSTR(ToWide(strPath).c_str()), ACCESS_MODE_READ) != 0;
      m_nLength = m_bOpen ? m_access.GetLength() : 0;
    } else {
      std::error_code ec;
      m_nLength = fs::file_size(NativePath(strPath), ec);
      m_file.open(NativePath(strPath), std::ios::binary);
      m_bOpen = !ec && m_file.is_open();
    }
  }
  ~ReadBack() {
    if (m_bVirtual && m_bOpen) m_access.CloseFile();
  }
  ReadBack(const ReadBack&) = delete;
  ReadBack& operator=(const ReadBack&) = delete;
  bool IsOpen() const { return m_bOpen; }
  ULONGLONG Length() const { return m_nLength; }
  // Fills nBytes of pBuffer with the next bytes; false when fewer arrive.
  bool Read(char* pBuffer, size_t nBytes) {
    if (!m_bVirtual) return static_cast<bool>(m_file.read(pBuffer, static_cast<std::streamsize>(nBytes)));
    return m_access.Read(reinterpret_cast<BYTE*>(pBuffer), static_cast<int>(nBytes)) == static_cast<int>(nBytes);
  }

 private:
  const bool m_bVirtual;
  bool m_bOpen = false;
  ULONGLONG m_nLength = 0;
  std::ifstream m_file;      // a local file
  QLCT_FileAccess m_access;  // a virtual-storage file
};

// A whole count of 0 or more, for --retry.
bool ParseCount(const std::string& strText, int* pCount) {
  if (strText.empty() || strText.size() > 9 || strText.find_first_not_of("0123456789") != std::string::npos)
    return false;
  *pCount = std::stoi(strText);
  return true;
}

void RunWrite(const std::string& strOut, const std::string& strSize, const std::string& strSlice,
              const std::string& strBlock, const std::string* pPreset, const std::string& strRetry, bool bCache,
              const std::string& strCacheSize) {
  const ULONGLONG nSize = SizeOption(kCommand, "size", strSize, 0, 1ull << 40);
  const ULONGLONG nSlice = SizeOption(kCommand, "slice", strSlice, 1, 256u << 20);
  const ULONGLONG nBlock = SizeOption(kCommand, "block", strBlock, 1, 1u << 30);
  const ULONGLONG nPreset = pPreset ? SizeOption(kCommand, "preset", *pPreset, 1, 1ull << 40) : 0;
  int nRetry = 0;
  if (!ParseCount(strRetry, &nRetry))
    Fail(kCommand, "bad retry count '" + strRetry + "': give a whole number, 0 or more", 2);
  const ULONGLONG nCacheSize = SizeOption(kCommand, "cache size", strCacheSize, kMinCache, kMaxCache);

  // A local file is named to the writer absolutely; a virtual-storage path
  // or an object URL stays as it is. The read-back needs a regular file.
  const bool bObject = IsObjectUrl(strOut);
  if (!bObject && !IsLocalPath(strOut) && !IsVirtualPath(strOut))
    Fail(kCommand, "cannot write '" + strOut + "': write takes a local file, a qvf:\\ path or an oss:// object", 2);
  // Both are read back through the accessor.
  const bool bVirtual = IsVirtualPath(strOut) || bObject;
  auto words = [bObject](DWORD nError) { return bObject ? WebErrorText(nError, false) : ErrorText(nError); };
  std::error_code ec;
  const std::string strPath = bVirtual ? strOut : NativeText(fs::absolute(NativePath(strOut), ec));
  if (ec) Fail(kCommand, "'" + strOut + "' is not a file name");
  if (!bVirtual) {
    if (std::string strKind = NotAFileKind(strPath); !strKind.empty())
      Fail(kCommand, "cannot write '" + strOut + "': it is " + strKind + "; write needs a regular file to verify");
  }
  const bool bExisted = !bVirtual && fs::exists(NativePath(strPath), ec);

  // Twice the period plus one slice, so any slice can be taken in one piece;
  // made before the file, so missing memory leaves nothing behind.
  std::vector<char> pattern;
  try {
    pattern.resize(2 * kPeriod + nSlice);
  } catch (const std::bad_alloc&) {
    Fail(kCommand, "not enough memory for slices of " + strSlice + " bytes");
  }
  CComBSTR bstrPath(ToWide(strPath).c_str());
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
                            FILE_ATTRIBUTE_NORMAL, nullptr)) {
    const DWORD nError = GetLastError();
    // The open may have made the file before its cache failed: take away
    // what this run created.
    if (!bVirtual && !bExisted) fs::remove(NativePath(strPath), ec);
    Fail(kCommand, "cannot create '" + strOut + "': " + words(nError));
  }

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
      Fail(kCommand, "writing '" + strOut + "' failed at byte " + std::to_string(nDone) + ": " + words(nError));
    }
    nDone += nThis;
    bar.Update(static_cast<int>(nDone * 100 / nSize), static_cast<LONGLONG>(nDone), static_cast<LONGLONG>(nDone));
  }
  Clock::time_point tClose = Clock::now();
  BOOL bClosed = writer->CloseHandle();
  double dCloseSeconds = std::chrono::duration<double>(Clock::now() - tClose).count();
  bar.Finish(static_cast<LONGLONG>(nDone));
  if (!bClosed) {
    const DWORD nError = GetLastError();
    Fail(kCommand, "closing '" + strOut + "' failed: " +
                       (nError == ERROR_SUCCESS ? std::string("not every byte reached the file") : words(nError)));
  }
  double dSeconds = bar.Seconds();

  // Read back and check; the success lines come only once the size is right.
  ReadBack in(strPath, bVirtual);
  if (!in.IsOpen()) Fail(kCommand, "cannot read back '" + strOut + "': " + words(GetLastError()));
  const ULONGLONG nOnDisk = in.Length();
  if (nOnDisk != nSize)
    Fail(kCommand, "'" + strOut + "' holds " + std::to_string(nOnDisk) + " bytes, expected " + std::to_string(nSize));
  std::printf("wrote %llu bytes in %.2f s: %s (slice %llu, block %llu%s%s)\n", static_cast<unsigned long long>(nSize),
              dSeconds, MiBps(nSize, dSeconds).c_str(), static_cast<unsigned long long>(nSlice),
              static_cast<unsigned long long>(nBlock), nPreset ? ", preset " : "",
              nPreset ? std::to_string(nPreset).c_str() : "");
  std::printf("host time in WriteFile %.3f s, close %.3f s%s\n", std::chrono::duration<double>(inWrite).count(),
              dCloseSeconds, bCache ? " (waiting for the cache to drain)" : "");
  std::fflush(stdout);

  std::vector<char> buf(4u << 20);
  uint64_t nChecked = 0;
  while (nChecked < nSize) {
    size_t nThis = static_cast<size_t>(std::min<uint64_t>(buf.size(), nSize - nChecked));
    if (!in.Read(buf.data(), nThis)) Fail(kCommand, "cannot read '" + strOut + "' back");
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
  auto strRetry = std::make_shared<std::string>("0");
  auto bCache = std::make_shared<bool>(false);
  auto strCacheSize = std::make_shared<std::string>("32M");
  cmd->add_option("OUT", *strOut,
                  "File to write (replaced if it exists): a regular local file, a qvf:\\ path or an "
                  "oss://bucket/key object (the store from AWS_ENDPOINT_URL, AWS_REGION and the AWS credentials)")
      ->required();
  cmd->add_option("--size", *strSize, "Bytes to write; suffixes K, M, G")->required();
  cmd->add_option("--slice", *strSlice, "Bytes per host write (default 64K)");
  cmd->add_option("--block", *strBlock, "Write block size registered for the file (default 512K)");
  auto* preset = cmd->add_option("--preset", *strPreset, "Preset size registered for the file; trimmed at close");
  cmd->add_option("--retry", *strRetry, "Retries of a failed block (flushes every block; default 0)");
  cmd->add_flag("--cache", *bCache, "Write through the writer's memory write cache");
  cmd->add_option("--cache-size", *strCacheSize, "Memory of the write cache, 1M to 1G (default 32M)");
  cmd->callback([=] {
    RunWrite(*strOut, *strSize, *strSlice, *strBlock, preset->count() > 0 ? strPreset.get() : nullptr, *strRetry,
             *bCache, *strCacheSize);
  });
}
