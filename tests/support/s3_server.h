// A strict S3 store and a plain HTTP server on 127.0.0.1 for tests and
// benchmarks.
#ifndef QLTFSDK_TESTS_SUPPORT_S3_SERVER_H
#define QLTFSDK_TESTS_SUPPORT_S3_SERVER_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/child_process.h"

// One S3 request as the front logged it. status 0: the front dropped the
// connection or stalled instead of answering.
struct S3Request {
  std::string method;
  std::string path;   // as sent, still URL-encoded: "/bucket/key"
  std::string query;  // as sent, without the '?'
  int status = 0;
};

// Starts tests/support/s3_front.py under Debian's /usr/bin/python3: the
// object store (installed by scripts/setup) with storageDir as its storage
// folder, behind a front on a free loopback port that verifies every
// signature against the test credentials below, keeps canned ACLs, checks
// multipart uploads and injects faults on request (see the script). The
// constructor waits (bounded) until the front answers and throws
// std::runtime_error when it cannot start. Both processes end when the
// object is destroyed, and by themselves when this process goes away.
// The control calls (CreateBucket, Fault, Reset, OpenUploads, Requests) use
// libcurl and throw std::runtime_error when the front does not answer 200.
// Not thread-safe: one owner; the store itself serves any number of clients.
//
// With QLT_S3_STORE=ceph in the environment it starts instead a single-node
// memory-backed cluster and its S3 gateway (tests/support/ceph_s3.sh, same
// credentials, up to two minutes to start): a real store, without the
// front's controls. There CreateBucket and OpenUploads go through the AWS
// client, Requests answers an empty list, and Fault and Reset throw;
// HasFaultControl tells a test which it has.
class S3TestServer {
 public:
  explicit S3TestServer(const std::string& storageDir);
  ~S3TestServer();
  S3TestServer(const S3TestServer&) = delete;
  S3TestServer& operator=(const S3TestServer&) = delete;

  int port() const { return m_nPort; }
  pid_t pid() const { return m_child.pid(); }
  // The store's storage folder (objects live in <storage>/<bucket>/...).
  const std::string& storage() const { return m_strStorage; }
  // "http://127.0.0.1:<port>"
  std::string Endpoint() const;
  static const char* AccessKey() { return "QLTTESTACCESSKEY"; }
  static const char* SecretKey() { return "qlt-test-secret-key"; }
  static const char* Region() { return "us-east-1"; }

  // False when the store is the real cluster (no faults, no request log).
  bool HasFaultControl() const { return !m_bCeph; }
  // Creates a bucket (names of 3 to 63 characters, as S3 wants them).
  void CreateBucket(const std::string& name);
  // The next `count` requests, after skipping `skip`, whose method is `method`
  // ("*" = any) and whose path?query contains `match` ("" = any) get fault
  // `kind`: "500", "503" (SlowDown), "403", "drop" (the connection closes
  // half-way through the request body or the response), "stall" (no answer
  // for `seconds`, then the connection closes).
  void Fault(const std::string& kind, const std::string& method, const std::string& match, int skip, int count,
             double seconds = 0);
  // Clears the faults and the request log.
  void Reset();
  // Multipart uploads initiated and neither completed nor aborted.
  int OpenUploads();
  // The S3 requests since the start or the last Reset, oldest first.
  std::vector<S3Request> Requests();

  // Points this process's AWS configuration at the front: sets
  // AWS_ENDPOINT_URL, AWS_REGION, AWS_DEFAULT_REGION, AWS_ACCESS_KEY_ID and
  // AWS_SECRET_ACCESS_KEY; unsets AWS_SESSION_TOKEN and AWS_ENDPOINT_URL_S3;
  // sets AWS_SHARED_CREDENTIALS_FILE and AWS_CONFIG_FILE to /nonexistent.
  // Changes the environment: call it before starting threads that read it.
  void UseInThisProcess();

  // Runs Debian's AWS command line client (/usr/bin/aws) against the front:
  // `aws --endpoint-url <Endpoint()> <args>` through /bin/sh (also under
  // Wine), with the test credentials (or `secretKey` when not empty), the
  // region, path-style addressing and no other configuration. args are passed
  // to the shell as they stand: quote what needs it (ShellQuote) and name
  // files by their UnixPath. Returns the exit code (-1 when it did not exit
  // within two minutes); the standard output and error go to *output when not
  // null.
  int RunAwsCli(const std::string& args, std::string* output = nullptr, const std::string& secretKey = "") const;

 private:
  // One control request; returns the answer's body. Throws unless 200.
  std::string Control(const std::string& method, const std::string& pathAndQuery);

  bool m_bCeph = false;  // the real cluster instead of the front
  std::string m_strStorage;
  std::string m_strAwsConfig;  // the AWS client's configuration file, beside the storage folder
  ChildProcess m_child;        // the front (which runs the store) or the gateway script
  int m_nPort = 0;
};

// Serves a folder read-only over HTTP/1.1 on a free loopback port (GET with
// byte ranges, HEAD; 404 for what is not there; a request for
// "/redirect/<path>" answers 302 to "/<path>"). Starts
// tests/support/http_server.py under /usr/bin/python3; the constructor waits
// (bounded) until it listens and throws std::runtime_error when it cannot
// start. Ends when the object is destroyed, and by itself when this process
// goes away. Not thread-safe; one owner.
class HttpTestServer {
 public:
  explicit HttpTestServer(const std::string& root);
  ~HttpTestServer();
  HttpTestServer(const HttpTestServer&) = delete;
  HttpTestServer& operator=(const HttpTestServer&) = delete;

  int port() const { return m_nPort; }
  // "http://127.0.0.1:<port>/" + path
  std::string Url(const std::string& path) const;

 private:
  ChildProcess m_child;
  int m_nPort = 0;
};

#endif  // QLTFSDK_TESTS_SUPPORT_S3_SERVER_H
