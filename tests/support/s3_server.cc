#include "tests/support/s3_server.h"

#include <curl/curl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

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

// Reads one line from fd within the time limit; empty on time-out or end.
std::string ReadLine(int fd, int timeoutMs) {
  std::string line;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return {};
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char c;
    ssize_t n = read(fd, &c, 1);
    if (n <= 0) return {};
    if (c == '\n') return line;
    line += c;
  }
}

// Starts `/usr/bin/python3 script --<option> value` with a pipe on its
// standard input and waits for its "PORT <n>" line. On success fills pid,
// the write end of its input and the port; on failure reaps the child and
// returns false.
// interpreter: "/usr/bin/python3" with an option, or "/bin/bash" with the
// value alone.
bool StartScript(const char* script, const char* option, const std::string& value, pid_t* pid, int* fdStdin, int* port,
                 int timeoutMs = kStartTimeoutMs) {
  int in[2], out[2];
  if (pipe(in) != 0) return false;
  if (pipe(out) != 0) {
    close(in[0]);
    close(in[1]);
    return false;
  }
  pid_t parent = getpid();
  pid_t child = fork();
  if (child == 0) {
    // The server also dies with this process, whatever happens to the pipe.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    dup2(in[0], 0);
    dup2(out[1], 1);
    close(in[0]);
    close(in[1]);
    close(out[0]);
    close(out[1]);
    if (option == nullptr)
      execl("/bin/bash", "bash", script, value.c_str(), static_cast<char*>(nullptr));
    else
      execl("/usr/bin/python3", "python3", script, option, value.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  if (child < 0) {
    close(in[1]);
    close(out[0]);
    return false;
  }
  std::string line = ReadLine(out[0], timeoutMs);
  close(out[0]);
  int n = line.rfind("PORT ", 0) == 0 ? std::atoi(line.c_str() + 5) : 0;
  if (n <= 0) {
    close(in[1]);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return false;
  }
  *pid = child;
  *fdStdin = in[1];
  *port = n;
  return true;
}

// Closes the child's input (it exits at its end), waits up to 3 s, then kills it.
void StopScript(pid_t* pid, int* fdStdin) {
  if (*fdStdin >= 0) close(*fdStdin);
  *fdStdin = -1;
  if (*pid <= 0) return;
  for (int i = 0; i < 300; ++i) {
    if (waitpid(*pid, nullptr, WNOHANG) == *pid) {
      *pid = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(*pid, SIGKILL);
  waitpid(*pid, nullptr, 0);
  *pid = -1;
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
    if (!StartScript(QLT_CEPH_S3_SCRIPT, nullptr, storageDir, &m_pid, &m_fdStdin, &m_nPort, kCephStartTimeoutMs))
      throw std::runtime_error("the Ceph S3 gateway did not start (scripts/setup --ceph installs it)");
    return;
  }
  if (!StartScript(QLT_S3_FRONT_SCRIPT, "--storage", storageDir, &m_pid, &m_fdStdin, &m_nPort))
    throw std::runtime_error(
        "the S3 test front did not start (did scripts/setup install the store with npm ci in tests/support/s3?)");
}

S3TestServer::~S3TestServer() { StopScript(&m_pid, &m_fdStdin); }

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
      " -u http_proxy -u HTTPS_PROXY -u https_proxy AWS_CONFIG_FILE='" +
      m_strAwsConfig +
      "' AWS_SHARED_CREDENTIALS_FILE=/nonexistent AWS_EC2_METADATA_DISABLED=true"
      " AWS_PAGER= AWS_ACCESS_KEY_ID=" +
      AccessKey() + " AWS_SECRET_ACCESS_KEY='" + (secretKey.empty() ? SecretKey() : secretKey) +
      "' AWS_REGION=" + Region() + " AWS_DEFAULT_REGION=" + Region() + " /usr/bin/aws --endpoint-url " + Endpoint() +
      " " + args + " 2>&1";
  FILE* pipe = popen(line.c_str(), "r");
  if (pipe == nullptr) return -1;
  std::string text;
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) text.append(buffer, n);
  int status = pclose(pipe);
  if (output != nullptr) *output = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

HttpTestServer::HttpTestServer(const std::string& root) {
  if (!StartScript(QLT_HTTP_SERVER_SCRIPT, "--root", root, &m_pid, &m_fdStdin, &m_nPort))
    throw std::runtime_error("the HTTP test server did not start");
}

HttpTestServer::~HttpTestServer() { StopScript(&m_pid, &m_fdStdin); }

std::string HttpTestServer::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(m_nPort) + "/" + path;
}
