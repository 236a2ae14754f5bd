// CFtpFile: a file on an FTP server ("ftp://user:pw@host:port/dir/name"),
// written through a spool file and sent in one upload at Close.
//
// The spool keeps every seek and rewrite of the host possible (FTP cannot
// change bytes already sent) and bounds memory whatever the file's size.
// Open logs in once to fail early on a refused login or an unreachable
// server; Close uploads the spool (creating missing folders), retried by the
// client's rule, and removes it. Reading an FTP file goes through the
// accessor's own FTP back-end, so ReadOnly opens are refused here.
//
// Thread rule: one thread at a time.
#ifndef QLTFSDK_COMPANIONS_WEBFILE_FTP_FILE_H
#define QLTFSDK_COMPANIONS_WEBFILE_FTP_FILE_H

#include <string>

#include "companions/webfile/web_client.h"
#include "companions/webfile/web_config.h"
#include "companions/webfile/web_file_impl.h"
#include "companions/webfile/web_url.h"

namespace qltweb {

class CFtpFile final : public CWebFileImpl {
 public:
  CFtpFile(const WebConfig& cfg, const WebUrl& url);
  ~CFtpFile() override;

  // Logs in and makes the spool file. False with the last error set.
  bool Open();

  int64_t GetSize() override;
  int64_t Seek(int64_t nDistance, int nMethod) override;
  int Read(void* pBuffer, DWORD nCount) override;
  int Write(const void* pBuffer, DWORD nCount) override;
  int Close() override;
  void Abandon() override;

  // "ftp://host[:port]" followed by path.
  static std::string ServerUrl(const WebUrl& url, const std::string& path);

 private:
  void RemoveSpool();

  const WebUrl m_url;
  CWebClient m_client;
  HANDLE m_hSpool = nullptr;  // the spool file, open from Open to Close
  std::wstring m_strSpool;
  int64_t m_nPos = 0;
  int64_t m_nSize = 0;  // furthest byte written
};

}  // namespace qltweb

#endif  // QLTFSDK_COMPANIONS_WEBFILE_FTP_FILE_H
