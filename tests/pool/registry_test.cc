// The registry through the pool-access operations a host calls, and the
// writer list through the narrow interface a writer implements.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "pool/registry.h"
#include "qltfsdk/datapoolaccess.h"

namespace {

std::wstring Text(BSTR s) { return s ? std::wstring(s, SysStringLen(s)) : std::wstring(); }

// A record whose name the test owns and frees, as a host's would be.
template <class Record>
struct Owned {
  explicit Owned(const wchar_t* name) : r{} { r.bstrFileName = name ? SysAllocString(name) : nullptr; }
  ~Owned() { SysFreeString(r.bstrFileName); }
  Record r;
};
using Props = Owned<QLCT_WRITEFILE_PROPS_ST>;
using IndexProps = Owned<QLCT_WRITE_FILE_INDEX_PROPS_ST>;
using Status = Owned<QLCT_POOL_STATUS_ST>;

int Op(QLCT_DataPoolAccess& access, const wchar_t* op, void* data) { return access.Operation(CComBSTR(op), data); }

// A stand-in for a live writer: its status is guarded by its own lock, as a
// writer's is.
struct FakeWriter final : qlt::pool::CWriterStatusSource {
  FakeWriter(uint32_t id, const wchar_t* name) : guid{id, 0, 0, {}}, name(name) {}
  GUID WriterGuid() const override { return guid; }
  bool CopyStatus(QLCT_POOL_STATUS_ST* pOut) override {
    std::lock_guard<std::mutex> hold(lock);
    pOut->nFileLength = length, pOut->nPendingBytes = pending;
    return (pOut->bstrFileName = SysAllocString(name.c_str())) != nullptr;
  }
  void Advance(ULONGLONG n) {
    std::lock_guard<std::mutex> hold(lock);
    length += n, pending = n;
  }
  const GUID guid;
  const std::wstring name;
  std::mutex lock;
  ULONGLONG length = 0, pending = 0;  // guarded by lock
};

TEST(RegistryTest, FilePropsMatchWithoutCaseAndSetTwiceKeepsOneRecord) {
  QLCT_DataPoolAccess access;
  Props first(L"D:\\rec\\a.bin");
  first.r.dwValue1 = 1, first.r.dwValue2 = 2, first.r.dwValue3 = 3;
  ASSERT_EQ(Op(access, L"set_WriteFileProps", &first.r), 1);

  Props asked(L"d:\\REC\\A.BIN");
  ASSERT_EQ(Op(access, L"get_WriteFileProps", &asked.r), 1);
  EXPECT_EQ(Text(asked.r.bstrFileName), L"D:\\rec\\a.bin");  // the stored case, in a new string
  EXPECT_EQ(asked.r.dwValue1 * 100 + asked.r.dwValue2 * 10 + asked.r.dwValue3, 123u);

  // A second set under another case updates that record: a second record
  // would be shadowed by the first and the old values would come back.
  Props again(L"D:\\REC\\a.bin");
  again.r.dwValue1 = 4, again.r.dwValue2 = 5, again.r.dwValue3 = 'E';
  ASSERT_EQ(Op(access, L"set_WriteFileProps", &again.r), 1);
  ASSERT_EQ(Op(access, L"get_WriteFileProps", &asked.r), 1);
  EXPECT_EQ(Text(asked.r.bstrFileName), L"D:\\REC\\a.bin");
  EXPECT_EQ(asked.r.dwValue1 * 100 + asked.r.dwValue2 * 10, 450u);

  qlt::pool::CacheRequest request = qlt::pool::LookUpCacheRequest(asked.r.bstrFileName);
  EXPECT_TRUE(request.bFound);
  EXPECT_EQ(request.dwRequest, 4u);
  EXPECT_EQ(request.cDrive, L'E');
  // The cache drive is the lowest byte of the third value when positive.
  const struct {
    DWORD dwValue3;
    wchar_t drive;
  } drives[] = {{0, 0}, {'F', L'F'}, {0x1200 + 'G', L'G'}, {0x80, 0}, {0xFFFFFFFFu, 0}};
  for (const auto& c : drives) {
    again.r.dwValue3 = c.dwValue3;
    ASSERT_EQ(qlt::pool::SetWriteFileProps(&again.r), 1);
    EXPECT_EQ(qlt::pool::LookUpCacheRequest(asked.r.bstrFileName).cDrive, c.drive) << c.dwValue3;
  }
  EXPECT_FALSE(qlt::pool::LookUpCacheRequest(CComBSTR(L"never-set.bin")).bFound);
}

TEST(RegistryTest, IndexPropsAreSharedBetweenAccessObjectsAndOnlyExactNamesWork) {
  QLCT_DataPoolAccess writerSide, readerSide;
  IndexProps set(L"\\\\srv\\share\\clip.mxf");
  set.r.dwValue1 = 7, set.r.dwValue4 = 9;
  ASSERT_EQ(Op(writerSide, L"set_WriteFileIndexProps", &set.r), 1);

  IndexProps got(L"\\\\SRV\\share\\CLIP.mxf");
  ASSERT_EQ(Op(readerSide, L"get_WriteFileIndexProps", &got.r), 1);
  EXPECT_EQ(got.r.dwValue1, 7u);
  EXPECT_EQ(got.r.dwValue4, 9u);
  EXPECT_EQ(Op(readerSide, L"clear_WriteFileIndexProps", &got.r), 1);
  EXPECT_EQ(Op(writerSide, L"clear_WriteFileIndexProps", &set.r), 0);

  // A get that finds nothing leaves the caller's record as it was.
  got.r.dwValue2 = 42;
  EXPECT_EQ(Op(readerSide, L"get_WriteFileIndexProps", &got.r), 0);
  EXPECT_EQ(got.r.dwValue2, 42u);
  EXPECT_EQ(Text(got.r.bstrFileName), L"\\\\srv\\share\\clip.mxf");
  // Only the exact operation names with a record do anything.
  const wchar_t* refused[] = {
      L"Get_PoolStatus", L"get_poolstatus", L"clear_WriteFileProps", L"set_WriteFileIndexProps ", L"", nullptr};
  for (const wchar_t* name : refused) EXPECT_EQ(readerSide.Operation(CComBSTR(name), &got.r), 0);
  EXPECT_EQ(Op(readerSide, L"get_WriteFileIndexProps", &got.r), 0);  // nothing was set by the refused names
  Props props(L"names.bin");
  EXPECT_EQ(Op(readerSide, L"set_WriteFileProps", nullptr), 0);
  EXPECT_EQ(Op(readerSide, L"get_WriteFileProps", nullptr), 0);
  EXPECT_EQ(Op(readerSide, L"get_WriteFileProps", &props.r), 0);

  IndexProps unnamed(nullptr), empty(L"");  // a null name counts as empty
  unnamed.r.dwValue3 = 5;
  ASSERT_EQ(qlt::pool::SetWriteFileIndexProps(&unnamed.r), 1);
  ASSERT_EQ(qlt::pool::GetWriteFileIndexProps(&empty.r), 1);
  EXPECT_EQ(empty.r.bstrFileName, nullptr);  // the stored (null) name came back
  EXPECT_EQ(empty.r.dwValue3, 5u);
  EXPECT_EQ(qlt::pool::ClearWriteFileIndexProps(&unnamed.r), 1);
}

TEST(RegistryTest, PoolStatusFindsRegisteredWritersOnlyAcrossThreads) {
  QLCT_DataPoolAccess access;
  Status asked(L"e:\\LIVE.bin");
  asked.r.dwFound = 7;
  EXPECT_EQ(Op(access, L"get_PoolStatus", &asked.r), 0);
  EXPECT_EQ(asked.r.dwFound, 0u);
  FakeWriter other(1, L"E:\\other.bin"), live(2, L"E:\\live.bin"), sameGuid(2, L"E:\\impostor.bin");
  live.Advance(100);
  // A second writer under a listed GUID is not added.
  for (FakeWriter* w : {&other, &live, &sameGuid}) ASSERT_EQ(qlt::pool::RegisterWriter(w), 1);
  ASSERT_EQ(Op(access, L"get_PoolStatus", &asked.r), 1);
  EXPECT_EQ(asked.r.dwFound, 1u);
  EXPECT_EQ(Text(asked.r.bstrFileName), L"E:\\live.bin");
  EXPECT_EQ(asked.r.nFileLength, 100u);
  EXPECT_EQ(asked.r.nPendingBytes, 100u);
  EXPECT_EQ(qlt::pool::UnregisterWriter(&live), 1);
  EXPECT_EQ(qlt::pool::UnregisterWriter(&sameGuid), 0);
  EXPECT_EQ(Op(access, L"get_PoolStatus", &asked.r), 0);

  // Access objects on several threads share one registry while a writer comes and goes.
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      QLCT_DataPoolAccess mine;
      std::wstring own = L"F:\\thread" + std::to_wstring(t) + L".bin";
      for (int i = 0; i < 300; ++i) {
        Props set(own.c_str()), got((L"f:\\THREAD" + std::to_wstring(t) + L".BIN").c_str());
        Status status(L"e:\\OTHER.bin");
        set.r.dwValue2 = static_cast<DWORD>(i);
        failures += Op(mine, L"set_WriteFileProps", &set.r) != 1;
        failures += Op(mine, L"get_WriteFileProps", &got.r) != 1 || got.r.dwValue2 != static_cast<DWORD>(i);
        if (t == 0 && i % 3 == 0) qlt::pool::UnregisterWriter(&other);
        if (t == 0) qlt::pool::RegisterWriter(&other);
        if (t == 1) other.Advance(1);
        if (t > 1 && Op(mine, L"get_PoolStatus", &status.r) == 1)
          failures += Text(status.r.bstrFileName) != L"E:\\other.bin";
      }
    });
  }
  for (auto& th : threads) th.join();
  qlt::pool::UnregisterWriter(&other);
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
