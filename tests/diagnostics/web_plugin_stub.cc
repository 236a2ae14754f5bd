// A minimal web-file plug-in for tests: files live in memory, one per
// object, and a URL "exists" when it holds the word "exists".
#include <cstring>
#include <cwchar>
#include <vector>

#include "companions/webfile/web_file_api.h"

namespace {

class CMemoryWebFile final : public CQltWebFile {
 public:
  void Destroy(unsigned int nFlags) override {
    if (nFlags & 1u) delete this;
  }
  int SetOrOpen(BSTR text) override {
    if (!text || wcsstr(text, L"://") == nullptr) return 0;  // option words and bad paths
    m_bOpen = true;
    return 1;
  }
  __int64 GetSize() override { return m_bOpen ? static_cast<__int64>(m_data.size()) : -1; }
  __int64 Seek(__int64 nDistance, int nMethod) override {
    __int64 base = nMethod == 0 ? 0 : nMethod == 1 ? m_nPos : static_cast<__int64>(m_data.size());
    if (!m_bOpen || base + nDistance < 0) return -1;
    m_nPos = base + nDistance;
    return m_nPos;
  }
  int Read(void* pBuffer, DWORD nCount) override {
    __int64 left = static_cast<__int64>(m_data.size()) - m_nPos;
    if (!m_bOpen || left <= 0) return 0;
    size_t n = static_cast<size_t>(left < nCount ? left : nCount);
    std::memcpy(pBuffer, m_data.data() + m_nPos, n);
    m_nPos += static_cast<__int64>(n);
    return static_cast<int>(n);
  }
  int Write(const void* pBuffer, DWORD nCount) override {
    if (!m_bOpen) return 0;
    if (m_data.size() < static_cast<size_t>(m_nPos) + nCount) m_data.resize(static_cast<size_t>(m_nPos) + nCount);
    std::memcpy(m_data.data() + m_nPos, pBuffer, nCount);
    m_nPos += nCount;
    return static_cast<int>(nCount);
  }
  int Close() override {
    m_bOpen = false;
    return 1;
  }

 private:
  ~CMemoryWebFile() = default;
  bool m_bOpen = false;
  __int64 m_nPos = 0;
  std::vector<unsigned char> m_data;
};

}  // namespace

extern "C" QLT_DECL_EXPORT int WINAPI WebFileIsExist(BSTR bstrPath) {
  int found = bstrPath && wcsstr(bstrPath, L"exists") != nullptr ? 1 : 0;
  SysFreeString(bstrPath);
  return found;
}

extern "C" QLT_DECL_EXPORT CQltWebFile* CreateWebFileWriter() { return new CMemoryWebFile; }
