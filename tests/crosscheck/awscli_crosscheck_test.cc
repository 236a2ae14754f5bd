// Objects written through the safe writer are read back by the AWS command
// line client, and objects that client wrote are read through the accessor,
// byte for byte, multipart objects included, against the same store.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "qltfsdk/qltfsdk.h"
#include "tests/support/s3_server.h"
#include "tests/support/temp_dir.h"

namespace {

CComBSTR Wide(const std::string& text) { return CComBSTR(std::wstring(text.begin(), text.end()).c_str()); }

class AwsCliCrossCheck : public ::testing::Test {
 protected:
  AwsCliCrossCheck() : m_server(m_dir.file("store")) {
    m_server.UseInThisProcess();
    m_server.CreateBucket("qlt-cross");
  }

  // Writes data to url through the writer in slices of random sizes up to
  // maxSlice; true when every call, the close included, succeeded.
  static bool WriteThroughWriter(const std::string& url, const std::string& data, size_t maxSlice, unsigned seed) {
    QLCT_FileEx* writer = QLCT_CreateFileExObj();
    QLCT_FIlEACCESSINFO_ST info{0, 0, 0, 32u << 20, nullptr, 4u << 20, 16u << 20};
    bool ok = writer != nullptr && writer->Initialize(&info) &&
              writer->CreateKXFile(Wide(url), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                   FILE_ATTRIBUTE_NORMAL, nullptr);
    std::mt19937 gen(seed);
    for (size_t at = 0; ok && at < data.size();) {
      DWORD n = static_cast<DWORD>(std::min<size_t>(data.size() - at, 1 + gen() % maxSlice));
      DWORD written = 0;
      ok = writer->WriteFile(data.data() + at, n, &written, nullptr) && written == n;
      at += n;
    }
    ok = ok && writer->CloseHandle();
    QLCT_DeleteFileExObj(writer);
    return ok;
  }

  // The object's bytes read through the accessor in blocks of `block`;
  // "<failed>" when an open or a read fails.
  static std::string ReadThroughAccessor(const std::string& url, int block) {
    QLCT_FileAccess access;
    if (!access.OpenFile(Wide(url), ACCESS_MODE_READ)) return "<failed>";
    std::string data;
    std::string buffer(static_cast<size_t>(block), '\0');
    for (;;) {
      int n = access.Read(reinterpret_cast<BYTE*>(&buffer[0]), block);
      if (n < 0) return "<failed>";
      if (n == 0) break;
      data.append(buffer, 0, static_cast<size_t>(n));
    }
    if (data.size() != access.GetLength()) return "<failed>";
    access.CloseFile();
    return data;
  }

  std::string AwsGet(const std::string& key) {
    std::string output;
    std::remove(m_dir.file("aws.bin").c_str());
    if (m_server.RunAwsCli(
            "s3 cp --no-progress s3://qlt-cross/" + key + " " + ShellQuote(UnixPath(m_dir.file("aws.bin"))), &output) !=
        0)
      return "<aws failed: " + output + ">";
    return ReadWholeFile(m_dir.file("aws.bin"));
  }

  TempDir m_dir;
  S3TestServer m_server;
};

TEST_F(AwsCliCrossCheck, WhatTheWriterStoresTheClientReads) {
  const size_t kPart = 8u << 20;  // the plug-in's default part size
  const struct {
    const char* key;
    size_t size;
    size_t maxSlice;
  } rows[] = {
      {"empty.bin", 0, 1},
      {"one.bin", 1, 1},
      {"part.bin", kPart, 1 << 20},
      {"part-plus-one.bin", kPart + 1, 3 << 20},
      {"dir/multi.bin", 3 * kPart + 12345, 5 << 20},
  };
  unsigned seed = 1;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.key);
    const std::string data = RandomBytes(row.size, ++seed);
    ASSERT_TRUE(WriteThroughWriter("oss://qlt-cross/" + std::string(row.key), data, row.maxSlice, seed));
    const std::string back = AwsGet(row.key);
    EXPECT_EQ(data.size(), back.size()) << back.substr(0, 300);
    EXPECT_TRUE(back == data);
  }
  bool multipart = false;
  for (const S3Request& r : m_server.Requests()) multipart |= r.query.find("partNumber=3") != std::string::npos;
  EXPECT_TRUE(multipart || !m_server.HasFaultControl()) << "the largest object went up in parts";
  EXPECT_EQ(0, m_server.OpenUploads());
}

TEST_F(AwsCliCrossCheck, WhatTheClientStoresTheAccessorReads) {
  const struct {
    const char* key;
    size_t size;
  } rows[] = {{"c-empty.bin", 0}, {"c-small.bin", 1000}, {"dir/c-multi.bin", 21 * 1024 * 1024 + 3}};
  unsigned seed = 50;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.key);
    const std::string data = RandomBytes(row.size, ++seed);
    ASSERT_TRUE(WriteWholeFile(m_dir.file("up.bin"), data));
    std::string output;
    ASSERT_EQ(0, m_server.RunAwsCli(
                     "s3 cp --no-progress " + ShellQuote(UnixPath(m_dir.file("up.bin"))) + " s3://qlt-cross/" + row.key,
                     &output))
        << output;
    EXPECT_TRUE(ReadThroughAccessor("oss://qlt-cross/" + std::string(row.key), 1 << 20) == data);
    EXPECT_TRUE(ReadThroughAccessor("oss://qlt-cross/" + std::string(row.key), 65521) == data);
  }
}

}  // namespace
