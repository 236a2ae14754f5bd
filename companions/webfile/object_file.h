// CObjectFile: an S3 object ("oss://bucket/key") for writing or reading, or
// an HTTP(S) file for reading.
//
// Writing: bytes [0, part size) stay in memory until Close, so a seek back
// into the first part works; the current part is filled in memory and, once
// the host writes past its end, handed to a CPartUploader (the multipart
// upload starts with the second part). A seek into a part already handed
// over fails (-1, ERROR_SEEK) and changes nothing. An object that never grows
// past one part, or one written in put mode, goes up in one PUT at Close. A
// failed upload is aborted on the store; so is an upload abandoned unclosed.
//
// Reading: the size comes from a HEAD; Read serves bytes through a
// CRangeReader (ranged GETs of WebConfig::m_nReadAhead bytes, fetched ahead
// while the host reads forward).
//
// Thread rule: one thread at a time; the part uploader's workers are joined
// by Close and Abandon, the range reader's by Close and the destructor.
#ifndef QLTFSDK_COMPANIONS_WEBFILE_OBJECT_FILE_H
#define QLTFSDK_COMPANIONS_WEBFILE_OBJECT_FILE_H

#include <memory>
#include <string>
#include <vector>

#include "companions/webfile/part_uploader.h"
#include "companions/webfile/range_reader.h"
#include "companions/webfile/web_client.h"
#include "companions/webfile/web_config.h"
#include "companions/webfile/web_file_impl.h"
#include "companions/webfile/web_url.h"

namespace qltweb {

class CObjectFile final : public CWebFileImpl {
 public:
  CObjectFile(const WebConfig& cfg, const WebUrl& url, const WebFileOptions& options);
  ~CObjectFile() override;

  // Checks that the object can be written (credentials, bucket) or reads its
  // size. False with the last error set.
  bool Open();

  int64_t GetSize() override;
  int64_t Seek(int64_t nDistance, int nMethod) override;
  int Read(void* pBuffer, DWORD nCount) override;
  int Write(const void* pBuffer, DWORD nCount) override;
  int Close() override;
  void Abandon() override;

  // The URL of an object of the store (no query), by the configuration's
  // endpoint and addressing style.
  static std::string ObjectUrl(const WebConfig& cfg, const std::string& bucket, const std::string& key);

 private:
  bool Signed() const { return m_url.m_eScheme == UrlScheme::kOss && m_cfg.HasCredentials(); }
  bool Fail(DWORD error);
  bool SendCurrentPart();
  bool StartUpload();
  bool PutWhole();
  bool CompleteUpload();
  void AbortUpload();
  uint64_t PartSize() const { return m_options.m_bPutMode ? UINT64_MAX : m_cfg.m_nPartSize; }

  const WebConfig m_cfg;
  const WebUrl m_url;
  const WebFileOptions m_options;
  std::string m_strUrl;  // the object's URL
  CWebClient m_client;
  bool m_bOpen = false;
  DWORD m_dwFailed = 0;  // non-zero once a write failed: Close then aborts

  // Writing. m_first holds bytes [0, m_first.size()) of the object (at most
  // one part, or all of it in put mode); m_current holds bytes
  // [(m_nCurrentPart - 1) * part size, + m_current.size()).
  std::vector<char> m_first;
  std::vector<char> m_current;
  int m_nCurrentPart = 2;
  std::string m_strUploadId;  // empty until the multipart upload starts
  std::unique_ptr<CPartUploader> m_pUploader;

  // Reading: made by Open.
  std::unique_ptr<CRangeReader> m_pReader;

  uint64_t m_nPos = 0;
  uint64_t m_nSize = 0;  // writing: furthest byte written; reading: the object's size
};

}  // namespace qltweb

#endif  // QLTFSDK_COMPANIONS_WEBFILE_OBJECT_FILE_H
