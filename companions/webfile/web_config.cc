#include "companions/webfile/web_config.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/platform.h"

namespace qltweb {
namespace {

std::string Env(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string(value) : std::string();
}

std::string Trim(const std::string& text) {
  size_t b = text.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return std::string();
  size_t e = text.find_last_not_of(" \t\r\n");
  return text.substr(b, e - b + 1);
}

// qltfsdk.ini where the SDK itself reads its settings.
std::wstring SettingsFile() {
  return QltSettingsFile(QltModuleFromAddress(reinterpret_cast<const void*>(&SettingsFile)));
}

std::string IniText(const std::wstring& ini, const wchar_t* key) {
  if (ini.empty()) return std::string();
  wchar_t buf[1024] = {};
  DWORD n = GetPrivateProfileStringW(L"WEBFILE", key, L"", buf, 1024, ini.c_str());
  return QltWideToUtf8(std::wstring(buf, n));
}

// A number from QLTFS_WEB_<env>, else from the ini key, else fallback.
int64_t Number(const std::wstring& ini, const char* env, const wchar_t* key, int64_t fallback) {
  std::string text = Env(env);
  if (text.empty()) text = IniText(ini, key);
  text = Trim(text);
  if (text.empty()) return fallback;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 0);
  if (end == text.c_str()) return fallback;
  return v;
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::string();
  std::ostringstream text;
  text << in.rdbuf();
  std::string s = text.str();
  if (s.size() > 1024 * 1024) s.resize(1024 * 1024);  // a credentials file is small; ignore the rest
  return s;
}

std::string CredentialsPath() {
  std::string path = Env("AWS_SHARED_CREDENTIALS_FILE");
  if (!path.empty()) return path;
  std::string home = Env("HOME");
  if (home.empty()) home = Env("USERPROFILE");
  if (home.empty()) return std::string();
  return home + "/.aws/credentials";
}

}  // namespace

bool ParseCredentialsText(const std::string& text, const std::string& profile, std::string& accessKey,
                          std::string& secretKey, std::string& token) {
  std::istringstream in(text);
  std::string line;
  bool inProfile = false;
  std::string access, secret, session;
  while (std::getline(in, line)) {
    std::string t = Trim(line);
    if (t.empty() || t[0] == '#' || t[0] == ';') continue;
    if (t[0] == '[') {
      size_t close = t.find(']');
      inProfile = close != std::string::npos && Trim(t.substr(1, close - 1)) == profile;
      continue;
    }
    if (!inProfile) continue;
    size_t eq = t.find('=');
    if (eq == std::string::npos) continue;
    std::string key = Trim(t.substr(0, eq));
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    std::string value = Trim(t.substr(eq + 1));
    if (key == "aws_access_key_id")
      access = value;
    else if (key == "aws_secret_access_key")
      secret = value;
    else if (key == "aws_session_token")
      session = value;
  }
  if (access.empty() || secret.empty()) return false;
  accessKey = access;
  secretKey = secret;
  token = session;
  return true;
}

WebConfig LoadWebConfig() {
  WebConfig cfg;
  std::wstring ini = SettingsFile();
  cfg.m_strEndpoint = Env("AWS_ENDPOINT_URL_S3");
  if (cfg.m_strEndpoint.empty()) cfg.m_strEndpoint = Env("AWS_ENDPOINT_URL");
  if (cfg.m_strEndpoint.empty()) cfg.m_strEndpoint = Trim(IniText(ini, L"Endpoint"));
  while (!cfg.m_strEndpoint.empty() && cfg.m_strEndpoint.back() == '/') cfg.m_strEndpoint.pop_back();
  std::string region = Env("AWS_REGION");
  if (region.empty()) region = Env("AWS_DEFAULT_REGION");
  if (region.empty()) region = Trim(IniText(ini, L"Region"));
  if (!region.empty()) cfg.m_strRegion = region;

  cfg.m_strAccessKey = Env("AWS_ACCESS_KEY_ID");
  cfg.m_strSecretKey = Env("AWS_SECRET_ACCESS_KEY");
  cfg.m_strToken = Env("AWS_SESSION_TOKEN");
  if (!cfg.HasCredentials()) {
    cfg.m_strToken.clear();
    std::string path = CredentialsPath();
    if (!path.empty())
      ParseCredentialsText(ReadWholeFile(path), "default", cfg.m_strAccessKey, cfg.m_strSecretKey, cfg.m_strToken);
  }

  cfg.m_bPathStyle = Number(ini, "QLTFS_WEB_PATH_STYLE", L"PathStyle", cfg.m_strEndpoint.empty() ? 0 : 1) != 0;
  int64_t part = Number(ini, "QLTFS_WEB_PART_SIZE", L"PartSize", static_cast<int64_t>(cfg.m_nPartSize));
  cfg.m_nPartSize = static_cast<uint64_t>(std::clamp<int64_t>(part, kMinPartSize, 5120 * kMiB));
  int64_t memory = Number(ini, "QLTFS_WEB_MEMORY_LIMIT", L"MemoryLimit", static_cast<int64_t>(cfg.m_nMemoryLimit));
  cfg.m_nMemoryLimit = std::max<uint64_t>(static_cast<uint64_t>(std::max<int64_t>(memory, 0)), 3 * cfg.m_nPartSize);
  cfg.m_nPartsInFlight =
      static_cast<int>(std::clamp<int64_t>(Number(ini, "QLTFS_WEB_PARTS_IN_FLIGHT", L"PartsInFlight", 4), 1, 16));
  cfg.m_nConnectTimeoutMs = static_cast<long>(
      std::clamp<int64_t>(Number(ini, "QLTFS_WEB_CONNECT_TIMEOUT_MS", L"ConnectTimeoutMs", 10000), 100, 600000));
  cfg.m_nIdleTimeoutMs = static_cast<long>(
      std::clamp<int64_t>(Number(ini, "QLTFS_WEB_IDLE_TIMEOUT_MS", L"IdleTimeoutMs", 30000), 1000, 600000));
  cfg.m_nMaxRetries =
      static_cast<int>(std::clamp<int64_t>(Number(ini, "QLTFS_WEB_MAX_RETRIES", L"MaxRetries", 4), 0, 20));
  cfg.m_nRetryTimeMs =
      static_cast<long>(std::clamp<int64_t>(Number(ini, "QLTFS_WEB_RETRY_TIME_MS", L"RetryTimeMs", 60000), 0, 3600000));
  int64_t ahead = Number(ini, "QLTFS_WEB_READ_AHEAD", L"ReadAhead", static_cast<int64_t>(cfg.m_nReadAhead));
  cfg.m_nReadAhead = static_cast<uint64_t>(std::clamp<int64_t>(ahead, 64 * 1024, 256 * kMiB));
  return cfg;
}

}  // namespace qltweb
