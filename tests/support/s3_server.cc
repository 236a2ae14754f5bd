#include "tests/support/s3_server.h"

#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "tests/support/temp_dir.h"  // setenv and unsetenv on Windows

#ifndef QLT_S3_FRONT_SCRIPT
#error "QLT_S3_FRONT_SCRIPT must name tests/support/s3_front.py"
#endif
#ifndef QLT_CEPH_S3_SCRIPT
#error "QLT_CEPH_S3_SCRIPT must name tests/support/ceph_s3.sh"
#endif
#ifndef QLT_HTTP_SERVER_SCRIPT
#error "QLT_HTTP_SERVER_SCRIPT must name tests/support/http_server.py"
#endif

namespace {

constexpr int kStartTimeoutMs = 30000;
constexpr int kCephStartTimeoutMs = 150000;

constexpr int kAwsCliTimeoutSeconds = 120;

// Starts argv and waits for its "PORT <n>" line: the port, or 0 with the
// child stopped.
int StartServer(ChildProcess* child, const std::vector<std::string>& argv, int timeoutMs = kStartTimeoutMs) {
  int port = 0;
  if (child->Start(argv)) {
    std::string line = child->FirstLine(timeoutMs);
    if (line.rfind("PORT ", 0) == 0) port = std::atoi(line.c_str() + 5);
  }
  if (port <= 0) child->Stop();
  return port;
}

size_t Collect(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

// The string value of "name" in the JSON object text; json.dumps escapes only
// quotes, backslashes, control and non-ASCII characters.
std::string JsonString(const std::string& object, const std::string& name) {
  size_t at = object.find("\"" + name + "\": ");
  if (at == std::string::npos) return {};
  at += name.size() + 4;
  if (at >= object.size() || object[at] != '"') return {};
  std::string value;
  for (++at; at < object.size() && object[at] != '"'; ++at) {
    char c = object[at];
    if (c == '\\' && at + 1 < object.size()) {
      c = object[++at];
      if (c == 'u' && at + 4 < object.size()) {
        value += static_cast<char>(std::strtol(object.substr(at + 1, 4).c_str(), nullptr, 16));
        at += 4;
        continue;
      }
      if (c == 'n') c = '\n';
      if (c == 't') c = '\t';
      if (c == 'r') c = '\r';
    }
    value += c;
  }
  return value;
}

std::vector<std::string> JsonObjects(const std::string& list) {
  std::vector<std::string> objects;
  size_t at = 0;
  while ((at = list.find('{', at)) != std::string::npos) {
    size_t end = list.find('}', at);  // the front's objects hold no nested objects
    if (end == std::string::npos) break;
    objects.push_back(list.substr(at, end - at + 1));
    at = end + 1;
  }
  return objects;
}

}  // namespace

S3TestServer::S3TestServer(const std::string& storageDir)
    : m_strStorage(storageDir), m_strAwsConfig(storageDir + ".aws-config") {
  static std::once_flag curlReady;
  std::call_once(curlReady, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  const char* store = std::getenv("QLT_S3_STORE");
  m_bCeph = store != nullptr && std::string(store) == "ceph";
  if (m_bCeph) {
    m_nPort = StartServer(&m_child, {"/bin/bash", QLT_CEPH_S3_SCRIPT, UnixPath(storageDir)}, kCephStartTimeoutMs);
    if (m_nPort <= 0) throw std::runtime_error("the Ceph S3 gateway did not start (scripts/setup --ceph installs it)");
    return;
  }
  m_nPort = StartServer(&m_child, {"/usr/bin/python3", QLT_S3_FRONT_SCRIPT, "--storage", UnixPath(storageDir)});
  if (m_nPort <= 0)
    throw std::runtime_error(
        "the S3 test front did not start (did scripts/setup install the store with npm ci in tests/support/s3?)");
}

S3TestServer::~S3TestServer() = default;

std::string S3TestServer::Endpoint() const { return "http://127.0.0.1:" + std::to_string(m_nPort); }

std::string S3TestServer::Control(const std::string& method, const std::string& pathAndQuery) {
  CURL* curl = curl_easy_init();
  if (curl == nullptr) throw std::runtime_error("curl_easy_init failed");
  std::string url = Endpoint() + "/__front/" + pathAndQuery;
  std::string body;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  if (method == "POST") {
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "");
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, 0L);
  }
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  CURLcode rc = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_cleanup(curl);
  if (rc != CURLE_OK || status != 200)
    throw std::runtime_error("S3 test front: " + method + " /__front/" + pathAndQuery + " failed (" +
                             (rc != CURLE_OK ? curl_easy_strerror(rc) : "HTTP " + std::to_string(status)) +
                             "): " + body);
  return body;
}

void S3TestServer::CreateBucket(const std::string& name) {
  if (m_bCeph) {
    std::string output;
    if (RunAwsCli("s3 mb s3://" + name, &output) != 0) throw std::runtime_error("cannot create bucket: " + output);
    return;
  }
  char* escaped = curl_easy_escape(nullptr, name.c_str(), static_cast<int>(name.size()));
  std::string query = escaped ? escaped : "";
  curl_free(escaped);
  Control("POST", "bucket?name=" + query);
}

void S3TestServer::Fault(const std::string& kind, const std::string& method, const std::string& match, int skip,
                         int count, double seconds) {
  if (m_bCeph) throw std::runtime_error("the Ceph store takes no faults");
  char* escaped = curl_easy_escape(nullptr, match.c_str(), static_cast<int>(match.size()));
  std::string matchArg = escaped ? escaped : "";
  curl_free(escaped);
  char* escapedMethod = curl_easy_escape(nullptr, method.c_str(), static_cast<int>(method.size()));
  std::string methodArg = escapedMethod ? escapedMethod : "";
  curl_free(escapedMethod);
  Control("POST", "fault?kind=" + kind + "&method=" + methodArg + "&match=" + matchArg + "&skip=" +
                      std::to_string(skip) + "&count=" + std::to_string(count) + "&seconds=" + std::to_string(seconds));
}

void S3TestServer::Reset() {
  if (m_bCeph) throw std::runtime_error("the Ceph store has no request log");
  Control("POST", "reset");
}

int S3TestServer::OpenUploads() {
  if (!m_bCeph) return static_cast<int>(JsonObjects(Control("GET", "uploads")).size());
  std::string buckets;
  if (RunAwsCli("s3api list-buckets --query Buckets[].Name --output text", &buckets) != 0)
    throw std::runtime_error("cannot list buckets: " + buckets);
  int open = 0;
  std::istringstream names(buckets);
  std::string bucket;
  while (names >> bucket) {
    if (bucket == "None") continue;
    std::string uploads;
    RunAwsCli("s3api list-multipart-uploads --bucket " + bucket + " --query Uploads[].UploadId --output text",
              &uploads);
    std::istringstream ids(uploads);
    std::string id;
    while (ids >> id) open += id != "None";
  }
  return open;
}

std::vector<S3Request> S3TestServer::Requests() {
  std::vector<S3Request> requests;
  if (m_bCeph) return requests;
  for (const std::string& object : JsonObjects(Control("GET", "requests"))) {
    S3Request r;
    r.method = JsonString(object, "method");
    r.path = JsonString(object, "path");
    r.query = JsonString(object, "query");
    size_t at = object.find("\"status\": ");
    if (at != std::string::npos) r.status = std::atoi(object.c_str() + at + 10);
    requests.push_back(r);
  }
  return requests;
}

void S3TestServer::UseInThisProcess() {
  setenv("AWS_ENDPOINT_URL", Endpoint().c_str(), 1);
  setenv("AWS_REGION", Region(), 1);
  setenv("AWS_DEFAULT_REGION", Region(), 1);
  setenv("AWS_ACCESS_KEY_ID", AccessKey(), 1);
  setenv("AWS_SECRET_ACCESS_KEY", SecretKey(), 1);
  unsetenv("AWS_SESSION_TOKEN");
  unsetenv("AWS_ENDPOINT_URL_S3");
  setenv("AWS_SHARED_CREDENTIALS_FILE", "/nonexistent", 1);
  setenv("AWS_CONFIG_FILE", "/nonexistent", 1);
}

int S3TestServer::RunAwsCli(const std::string& args, std::string* output, const std::string& secretKey) const {
  FILE* config = std::fopen(m_strAwsConfig.c_str(), "w");
  if (config == nullptr) return -1;
  std::fputs("[default]\ns3 =\n    addressing_style = path\n", config);
  std::fclose(config);
  std::string line =
      "env -u AWS_SESSION_TOKEN -u AWS_PROFILE -u AWS_ENDPOINT_URL -u AWS_ENDPOINT_URL_S3 -u HTTP_PROXY"
      " -u http_proxy -u HTTPS_PROXY -u https_proxy AWS_CONFIG_FILE=" +
      ShellQuote(UnixPath(m_strAwsConfig)) +
      " AWS_SHARED_CREDENTIALS_FILE=/nonexistent AWS_EC2_METADATA_DISABLED=true"
      " AWS_PAGER= AWS_ACCESS_KEY_ID=" +
      AccessKey() + " AWS_SECRET_ACCESS_KEY=" + ShellQuote(secretKey.empty() ? SecretKey() : secretKey) +
      " AWS_REGION=" + Region() + " AWS_DEFAULT_REGION=" + Region() + " /usr/bin/aws --endpoint-url " + Endpoint() +
      " " + args;
  return RunShell(line, output, kAwsCliTimeoutSeconds);
}

HttpTestServer::HttpTestServer(const std::string& root) {
  m_nPort = StartServer(&m_child, {"/usr/bin/python3", QLT_HTTP_SERVER_SCRIPT, "--root", UnixPath(root)});
  if (m_nPort <= 0) throw std::runtime_error("the HTTP test server did not start");
}

HttpTestServer::~HttpTestServer() = default;

std::string HttpTestServer::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(m_nPort) + "/" + path;
}
