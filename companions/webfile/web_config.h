// Configuration of the web-file plug-in: where the store is, who we are, and
// the limits of the transfers.
//
// Sources, first found wins: the environment (AWS_ENDPOINT_URL_S3, then
// AWS_ENDPOINT_URL; AWS_REGION, then AWS_DEFAULT_REGION; AWS_ACCESS_KEY_ID,
// AWS_SECRET_ACCESS_KEY, AWS_SESSION_TOKEN; QLTFS_WEB_<KEY> for the keys
// below), then the [default] profile of the shared credentials file
// (AWS_SHARED_CREDENTIALS_FILE, else ~/.aws/credentials) for the three
// credential values, then the section [WEBFILE] of qltfsdk.ini (beside the
// host executable, else beside the plug-in): Endpoint, Region, PathStyle,
// PartSize, MemoryLimit, PartsInFlight, ConnectTimeoutMs, IdleTimeoutMs,
// MaxRetries, RetryTimeMs, ReadAhead. Secrets are kept in memory only, never
// written to a log or to a message.
//
// LoadWebConfig reads everything afresh on each call (an open calls it once);
// any thread.
#ifndef QLTFSDK_COMPANIONS_WEBFILE_WEB_CONFIG_H
#define QLTFSDK_COMPANIONS_WEBFILE_WEB_CONFIG_H

#include <cstdint>
#include <string>

namespace qltweb {

constexpr uint64_t kMiB = 1024 * 1024;
constexpr uint64_t kMinPartSize = 5 * kMiB;  // the store refuses smaller parts other than the last

struct WebConfig {
  std::string m_strEndpoint;  // "http://127.0.0.1:9000"; empty: the public service of the region
  std::string m_strRegion = "us-east-1";
  std::string m_strAccessKey;
  std::string m_strSecretKey;  // never logged
  std::string m_strToken;      // session token, optional; never logged
  bool m_bPathStyle = true;    // bucket in the path (an endpoint given by address needs it)
  uint64_t m_nPartSize = 8 * kMiB;
  uint64_t m_nMemoryLimit = 64 * kMiB;  // all part buffers of one upload together
  int m_nPartsInFlight = 4;
  long m_nConnectTimeoutMs = 10000;
  long m_nIdleTimeoutMs = 30000;  // no byte moved for this long ends a request
  int m_nMaxRetries = 4;          // further attempts after a 5xx, SlowDown, drop or time-out
  long m_nRetryTimeMs = 60000;    // no retry starts after this long since the first attempt
  uint64_t m_nReadAhead = 8 * kMiB;

  bool HasCredentials() const { return !m_strAccessKey.empty() && !m_strSecretKey.empty(); }
};

// Reads the configuration as described above. Values out of range are
// clamped (part size to at least 5 MiB, memory to at least three parts,
// parts in flight to 1..16). Never fails.
WebConfig LoadWebConfig();

// Reads profile from the text of a credentials file (ini form: "[name]"
// sections, "key = value" lines, "#" and ";" comments): aws_access_key_id,
// aws_secret_access_key, aws_session_token. Returns true when the profile
// holds both keys; the outputs are set only then.
bool ParseCredentialsText(const std::string& text, const std::string& profile, std::string& accessKey,
                          std::string& secretKey, std::string& token);

}  // namespace qltweb

#endif  // QLTFSDK_COMPANIONS_WEBFILE_WEB_CONFIG_H
