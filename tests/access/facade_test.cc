// The exported accessor as a host uses it: which back-end each path form
// gets, where the back-ends' results differ, that every source gives the
// file's bytes, copies, and FileIsExist on every source.
#include "diagnostics/web_plugin.h"
#include "platform/platform.h"
#include "qltfsdk/qltfsdk.h"
#include "tests/access/access_fixture.h"
#include "tests/support/alloc_fault.h"

namespace {

enum class Kind { kNone, kLocal, kVirtual, kEasy };

// Tells the back-ends apart by the results only each gives.
Kind KindOf(QLCT_FileAccess& f) {
  DWORD mode = 77;
  int r = f.GetAccessMode(mode);
  if (mode != 77) return Kind::kLocal;  // the only one that reports a mode
  if (r == 0) return Kind::kNone;
  return f.EnableAsyncRead(1, 1 << 20) == 1 ? Kind::kVirtual : Kind::kEasy;
}

class FacadeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    HMODULE hModule = LoadLibraryW(L"QVFVirtualFileU.dll");
    ASSERT_NE(hModule, nullptr);
    m_pfnSetRoot = reinterpret_cast<int (*)(const wchar_t*)>(GetProcAddress(hModule, "QltSetVirtualStorageRoot"));
    ASSERT_NE(m_pfnSetRoot, nullptr);
    m_pfnSetRoot(m_dir.wpath("root").c_str());
    std::filesystem::create_directories(m_dir.file("root"));
    ASSERT_TRUE(WriteWholeFile(m_dir.file("root/there.bin"), "x"));
    ASSERT_TRUE(WritePatternFile(m_dir.file("plain.bin"), 300000));
  }
  void TearDown() override {
    if (m_pfnSetRoot) m_pfnSetRoot(nullptr);
    SdkSettings.ReadBufSize = kDefaultReadBufSize;
  }
  CComBSTR P(const std::string& name) const { return CComBSTR(m_dir.wpath(name).c_str()); }

  TempDir m_dir;
  int (*m_pfnSetRoot)(const wchar_t*) = nullptr;
};

TEST_F(FacadeTest, TheFirstOpenChoosesTheBackEndUntilInitializeAndCopiesShareNone) {
  const struct {
    std::wstring path;
    DWORD mode;
    Kind kind;
    int open;
  } cases[] = {
      {m_dir.wpath("plain.bin"), 1, Kind::kEasy, 1},         {m_dir.wpath("plain2.bin"), 2, Kind::kLocal, 1},
      {m_dir.wpath("plain.bin"), 3, Kind::kNone, 0},         {L"qvf:\\pool\\clip", 2, Kind::kVirtual, 1},
      {L"\\\\server\\share\\QVF:\\x", 1, Kind::kVirtual, 1},  // the prefix mid-path
      {m_dir.wpath("Qvf:\\pool\\clip"), 2, Kind::kLocal, 0},  // mixed case: a plain path
      {m_dir.wpath("qVF:\\x"), 1, Kind::kEasy, 0},           {m_dir.wpath("missing.bin"), 1, Kind::kEasy, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.path.begin(), c.path.end()) + " mode " + std::to_string(c.mode));
    QLCT_FileAccess f;
    EXPECT_EQ(f.OpenFile(CComBSTR(c.path.c_str()), c.mode) != 0, c.open != 0);
    EXPECT_EQ(KindOf(f), c.kind);
  }
  // A facade keeps its back-end until Initialize, which closes and destroys it.
  QLCT_FileAccess f;
  ASSERT_EQ(f.OpenFile(P("w.bin"), 2), 1);
  EXPECT_EQ(f.OpenFile(CComBSTR(L"qvf:\\x"), 1), 0);  // still the local back-end
  ASSERT_EQ(f.OpenFile(P("plain.bin"), 1), 1);
  EXPECT_EQ(KindOf(f), Kind::kLocal);
  // Copies never share the back-end: they fail every call; the original works.
  QLCT_FileAccess copy(f), assigned;
  ASSERT_EQ(assigned.OpenFile(P("plain.bin"), 1), 1);
  assigned = f;
  for (QLCT_FileAccess* p : {&copy, &assigned}) {
    BYTE b[10];
    EXPECT_EQ(KindOf(*p), Kind::kNone);
    EXPECT_EQ(p->Read(b, 10), 0);
    EXPECT_EQ(p->Write(b, 10), 0);
    EXPECT_EQ(p->CloseFile(), 0);
  }
  EXPECT_EQ(f.GetLength(), 300000u);
  EXPECT_EQ(f.Initialize(5), 1);
  EXPECT_EQ(KindOf(f), Kind::kNone);
  ASSERT_NE(f.OpenFile(CComBSTR(L"qvf:\\x"), 1), 0);
  EXPECT_EQ(KindOf(f), Kind::kVirtual);
}

// Each back-end's own results for the same calls, and the same bytes from
// every source, in growing pieces and after a seek.
TEST_F(FacadeTest, EachSourceGivesItsOwnResultsAndTheFilesBytes) {
  const struct {
    const char* name;
    CComBSTR path;
    DWORD mode;
    int asyncWrite, asyncRead, setBuffer, write;
  } cases[] = {
      {"local", P("lw.bin"), 2, 1, 0 /* other direction */, 1, 10},
      {"virtual", CComBSTR(L"qvf:\\v.bin"), 2, 1, 1, 1, 1},
      {"easy", P("plain.bin"), 1, 0, 0, 1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    QLCT_FileAccess f;
    ASSERT_NE(f.OpenFile(c.path, c.mode), 0);
    EXPECT_EQ(f.SetReadBufferSize(65536), c.setBuffer);
    EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>("0123456789"), 10), c.write);
    EXPECT_EQ(f.EnableAsyncRead(1, 1 << 20), c.asyncRead);
    EXPECT_EQ(f.EnableAsyncWrite(1, 1 << 20), c.asyncWrite);
    for (int size : {0, 1, 65535}) {  // too small to work anywhere
      EXPECT_EQ(f.EnableAsyncWrite(1, size), 0) << size;
      EXPECT_EQ(f.EnableAsyncRead(1, size), 0) << size;
    }
    EXPECT_EQ(f.CloseFile(), 1);
  }
  const std::string kData = Pattern(0, 300000);
  QLCT_FileAccess local, w;
  ASSERT_NE(w.OpenFile(CComBSTR(L"qvf:\\d\\copy.bin"), 2), 0);  // into the virtual storage
  EXPECT_EQ(w.Write(reinterpret_cast<const BYTE*>(kData.data()), 300000), 1);
  EXPECT_EQ(w.CloseFile(), 1);
  ASSERT_EQ(local.OpenFile(P("unused.bin"), 2), 1);  // makes a local back-end
  const struct {
    const char* name;
    QLCT_FileAccess* reuse;
    CComBSTR path;
  } sources[] = {{"easy", nullptr, P("plain.bin")},
                 {"local", &local, P("plain.bin")},
                 {"virtual", nullptr, CComBSTR(L"qvf:\\d\\copy.bin")}};
  for (const auto& s : sources) {
    SCOPED_TRACE(s.name);
    QLCT_FileAccess fresh;
    QLCT_FileAccess& f = s.reuse ? *s.reuse : fresh;
    ASSERT_NE(f.OpenFile(s.path, 1), 0);
    EXPECT_EQ(f.GetLength(), 300000u);
    std::string got(300000, '\0');
    for (int n = 1, done = 0; done < 300000; n = n * 3 + 1) {
      int r = f.Read(reinterpret_cast<BYTE*>(&got[done]), std::min(n, 300000 - done));
      ASSERT_GT(r, 0);
      done += r;
    }
    EXPECT_TRUE(got == kData);
    EXPECT_EQ(f.GetPosition(), 300000);
    EXPECT_NE(f.SetPosition(1234), 0);
    for (__int64 pos : {-1LL, -(1LL << 40)}) {  // refused; the position stays
      SetLastError(0);
      EXPECT_EQ(f.SetPosition(pos), 0) << pos;
      EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));
    }
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(&got[0]), 10), 10);
    EXPECT_TRUE(got.substr(0, 10) == kData.substr(1234, 10));
    f.CloseFile();
  }
}

// The virtual storage's own results pass through; answers out of the
// ordinary are logged.
TEST_F(FacadeTest, VirtualStorageResultsAreTheStoragesOwnAndOddAnswersAreLogged) {
  ErrorLogCapture errorLog(m_dir);
  {
    QLCT_FileAccess f;
    ASSERT_NE(f.OpenFile(CComBSTR(L"qvf:\\small.bin"), 2), 0);
    f.Write(reinterpret_cast<const BYTE*>("0123456789"), 10);
    EXPECT_EQ(f.GetLength(), 10u);              // below 64 bytes: logged, still returned
    EXPECT_EQ(f.SetPosition(4294967296LL), 0);  // low 32 bits of 4 GiB
    EXPECT_EQ(f.GetPosition(), 4294967296LL);
    EXPECT_EQ(f.SetPosition(5), 5);
    BYTE b[20];
    EXPECT_EQ(f.Read(b, 20), 5);  // short read: logged, count unchanged
    EXPECT_EQ(std::string(reinterpret_cast<char*>(b), 5), "56789");
    f.CloseFile();
    QLCT_FileAccess bad;
    EXPECT_EQ(bad.OpenFile(CComBSTR(L"qvf:\\..\\..\\escape.bin"), 1), 0);
  }
  const std::string log = errorLog.Text();
  for (const char* line : {"qvf:\\small.bin", "    Get file size:   size :10   ",
                           "    read file :   size to read  :20  real size  :5  ", "    open file fail!   "})
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
}

// A write the storage cannot complete (a full disk, a short write) fails
// the call with the storage's error; the next write that fits succeeds.
TEST_F(FacadeTest, VirtualStorageWriteFailuresFailTheWrite) {
  for (auto action : {qlt::fault::Action::kFail, qlt::fault::Action::kShort}) {
    QLCT_FileAccess f;
    ASSERT_NE(f.OpenFile(CComBSTR(L"qvf:\\full.bin"), 2), 0);
    const std::string data(100000, 'd');
    {
      qlt::fault::ScopedFault full({qlt::fault::kWrite, L"*full.bin", nullptr, 1, 1, action, ERROR_DISK_FULL, 10, 0});
      SetLastError(0);
      EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 100000), 0);
      EXPECT_EQ(full.Fired(), 1);
      if (action == qlt::fault::Action::kFail) {
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DISK_FULL));
      }
    }
    EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 100000), 1);
    EXPECT_EQ(f.CloseFile(), 1);
  }
}

TEST_F(FacadeTest, FileIsExistAnswersForEverySourceAndWithoutTheLibraries) {
  QltResetWebPluginForTest(QltUtf8ToWide(QLT_TEST_WEBPLUGIN));
  // The plug-in answers for web schemes except ".inx" paths; "file://" is no
  // web scheme and is looked up locally.
  const std::wstring there[] = {m_dir.wpath("plain.bin"), L"qvf:\\there.bin", L"\\\\srv\\QVF:\\there.bin",
                                L"oss://bucket/exists.bin", L"HtTpS://h/exists"};
  const std::wstring absent[] = {m_dir.wpath("absent.bin"),
                                 L"qvf:\\absent.bin",
                                 L"ftp://h/absent.bin",
                                 L"http://h/exists.INX",
                                 L"file://" + m_dir.wpath("plain.bin"),
                                 L""};
  for (const auto& p : there) EXPECT_NE(FileIsExist(CComBSTR(p.c_str())), 0) << std::string(p.begin(), p.end());
  for (const auto& p : absent) EXPECT_EQ(FileIsExist(CComBSTR(p.c_str())), 0) << std::string(p.begin(), p.end());
  QltResetWebPluginForTest(L"");  // the real plug-in's name, made unloadable below

  qlt::fault::Rule rule{qlt::fault::kLoadLibrary,  L"*QVFVirtualFileU*", nullptr, 1, -1,
                        qlt::fault::Action::kFail, ERROR_MOD_NOT_FOUND,  0,       0};
  {
    qlt::fault::ScopedFault missing(rule);
    EXPECT_EQ(FileIsExist(CComBSTR(L"qvf:\\there.bin")), 0);
    QLCT_FileAccess f;  // and the virtual back-end fails its calls with 0
    EXPECT_EQ(f.OpenFile(CComBSTR(L"qvf:\\there.bin"), 1), 0);
    EXPECT_EQ(f.Read(nullptr, 0), 0);
    EXPECT_EQ(f.CloseFile(), 0);
  }
  rule.pathPattern = L"*QLT_WebFileReader*";
  qlt::fault::ScopedFault missing(rule);
  EXPECT_EQ(FileIsExist(CComBSTR(L"oss://bucket/exists.bin")), 0);
  const int tried = missing.Fired();
  EXPECT_GE(tried, 1);
  EXPECT_EQ(FileIsExist(CComBSTR(L"http://h/exists.inx")), 0);
  EXPECT_EQ(missing.Fired(), tried);  // ".inx" loads nothing
}

}  // namespace

// Each allocation of a host's write and read-back failing in turn: the
// operation it hits fails with ERROR_NOT_ENOUGH_MEMORY instead of throwing
// at the host, and the facade stays usable for the next file.
TEST_F(FacadeTest, OutOfMemoryInAnyOperationFailsItWithoutThrowing) {
  const CComBSTR path = P("oom.bin");
  const std::string data = Pattern(0, 100000);
  std::string back(data.size(), '\0');
  DWORD nFirstError = 0;
  int nRefusedRuns = 0;
  int nRuns = ForEachAllocationFailure(
      [&](int) {
        nFirstError = 0;
        auto step = [&](int r) {
          if (r <= 0 && nFirstError == 0) nFirstError = GetLastError() ? GetLastError() : ~0u;
        };
        QLCT_FileAccess f;
        SetLastError(0);
        step(f.OpenFile(path, ACCESS_MODE_WRITE));
        step(f.EnableAsyncWrite(1, 1 << 20));
        step(f.Write(reinterpret_cast<const BYTE*>(data.data()), static_cast<int>(data.size())));
        step(f.CloseFile());
        step(f.OpenFile(path, ACCESS_MODE_READ));  // the same local back-end, reading
        step(f.EnableAsyncRead(1, 1 << 20));
        step(f.Read(reinterpret_cast<BYTE*>(back.data()), static_cast<int>(back.size())));
        step(f.CloseFile());
      },
      [&](int n, bool bFired) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        EXPECT_TRUE(nFirstError == 0 || nFirstError == ERROR_NOT_ENOUGH_MEMORY) << nFirstError;
        nRefusedRuns += nFirstError == ERROR_NOT_ENOUGH_MEMORY;
        EXPECT_TRUE(bFired || back == data);
        QLCT_FileAccess f;
        EXPECT_EQ(f.OpenFile(path, ACCESS_MODE_WRITE), 1);
        EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>("ok"), 2), 2);
        EXPECT_EQ(f.CloseFile(), 1);
      });
  EXPECT_GT(nRuns, 2);  // the operations allocate at all
  EXPECT_GT(nRefusedRuns, 0) << "a refused allocation reached the host as a failed call";
}
