// A minimal web-file plug-in for tests: its objects accept any URL and hold
// nothing, and a URL "exists" when it holds the word "exists".
#include <cwchar>

#include "companions/webfile/web_file_api.h"

namespace {

class CNullWebFile final : public CQltWebFile {
 public:
  void Destroy(unsigned int nFlags) override {
    if (nFlags & 1u) delete this;
  }
  int SetOrOpen(BSTR text) override { return text && wcsstr(text, L"://") ? 1 : 0; }
  __int64 GetSize() override { return 0; }
  __int64 Seek(__int64, int) override { return -1; }
  int Read(void*, DWORD) override { return 0; }
  int Write(const void*, DWORD nCount) override { return static_cast<int>(nCount); }
  int Close() override { return 1; }
};

}  // namespace

extern "C" QLT_DECL_EXPORT int WINAPI WebFileIsExist(BSTR bstrPath) {
  int found = bstrPath && wcsstr(bstrPath, L"exists") != nullptr ? 1 : 0;
  SysFreeString(bstrPath);
  return found;
}

extern "C" QLT_DECL_EXPORT CQltWebFile* CreateWebFileWriter() { return new CNullWebFile; }
