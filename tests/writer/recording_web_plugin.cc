// A web-file plug-in for the writer tests that records every call it gets
// as one line of text ("SetOrOpen PutMode", "Write 5", ...), keeps written
// bytes in memory, and refuses paths that hold the word "refuse".
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <string>
#include <vector>

#include "companions/webfile/web_file_api.h"

namespace {

std::mutex g_lock;                 // guards g_calls
std::vector<std::string> g_calls;  // guarded by g_lock

void Record(const std::string& line) {
  std::lock_guard<std::mutex> hold(g_lock);
  g_calls.push_back(line);
}

std::string Narrow(BSTR text) {
  std::string s;
  for (const wchar_t* p = text; p && *p; ++p) s += static_cast<char>(*p);
  return s;
}

class CRecordingWebFile final : public CQltWebFile {
 public:
  void Destroy(unsigned int nFlags) override {
    Record("Destroy " + std::to_string(nFlags));
    if (nFlags & 1u) delete this;
  }
  int SetOrOpen(BSTR text) override {
    Record("SetOrOpen " + Narrow(text));
    return text && wcsstr(text, L"://") && !wcsstr(text, L"refuse") ? 1 : 0;
  }
  __int64 GetSize() override {
    Record("GetSize");
    return static_cast<__int64>(m_data.size());
  }
  __int64 Seek(__int64 nDistance, int nMethod) override {
    Record("Seek " + std::to_string(nDistance) + " " + std::to_string(nMethod));
    __int64 base = nMethod == 0 ? 0 : nMethod == 1 ? m_nPos : static_cast<__int64>(m_data.size());
    if (base + nDistance < 0) return -1;
    m_nPos = base + nDistance;
    return m_nPos;
  }
  int Read(void* pBuffer, DWORD nCount) override {
    Record("Read " + std::to_string(nCount));
    __int64 left = static_cast<__int64>(m_data.size()) - m_nPos;
    if (left <= 0) return 0;
    size_t n = static_cast<size_t>(left < nCount ? left : nCount);
    std::memcpy(pBuffer, m_data.data() + m_nPos, n);
    m_nPos += static_cast<__int64>(n);
    return static_cast<int>(n);
  }
  int Write(const void* pBuffer, DWORD nCount) override {
    Record("Write " + std::to_string(nCount));
    if (m_data.size() < static_cast<size_t>(m_nPos) + nCount) m_data.resize(static_cast<size_t>(m_nPos) + nCount);
    std::memcpy(m_data.data() + m_nPos, pBuffer, nCount);
    m_nPos += nCount;
    return static_cast<int>(nCount);
  }
  int Close() override {
    Record("Close");
    return 1;
  }

 private:
  ~CRecordingWebFile() = default;
  __int64 m_nPos = 0;
  std::vector<char> m_data;
};

}  // namespace

extern "C" QLT_DECL_EXPORT int WINAPI WebFileIsExist(BSTR bstrPath) {
  SysFreeString(bstrPath);
  return 0;
}

extern "C" QLT_DECL_EXPORT CQltWebFile* CreateWebFileWriter() {
  Record("CreateWebFileWriter");
  return new CRecordingWebFile;
}

// For the tests: the calls recorded so far, joined by '|', and emptied.
extern "C" QLT_DECL_EXPORT void QltTestTakeWebCalls(char* buf, size_t size) {
  std::lock_guard<std::mutex> hold(g_lock);
  std::string all;
  for (const std::string& c : g_calls) all += (all.empty() ? "" : "|") + c;
  g_calls.clear();
  std::snprintf(buf, size, "%s", all.c_str());
}
