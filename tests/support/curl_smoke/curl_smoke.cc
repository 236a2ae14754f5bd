// Checks the Windows build's static libcurl under Wine: one FTP download, one
// FTP upload and one HTTP GET against loopback servers that
// scripts/check-mingw-curl starts. Files are named relative to the working
// directory; the script compares them byte for byte afterwards.
//
// Usage: curl_smoke <ftp-base-url> <http-url> [<https-url> <ca-file>]
//   downloads <ftp-base-url>down.bin to down.got, uploads up.bin to
//   <ftp-base-url>up.bin, downloads <http-url> to http.got and, when given,
//   <https-url> to https.got, checking the server against <ca-file>.
// Exit status 0 when every transfer succeeded, 1 otherwise (the failing
// transfer and libcurl's message go to standard error).
#include <curl/curl.h>

#include <cstdio>
#include <string>

namespace {

size_t WriteToFile(char* pData, size_t nSize, size_t nCount, void* pFile) {
  return std::fwrite(pData, nSize, nCount, static_cast<FILE*>(pFile));
}

// Runs one transfer on a fresh handle. strLocal is read for an upload and
// written otherwise. Returns false (after saying why) on any failure.
bool Transfer(const std::string& strUrl, const char* pszLocal, bool bUpload, const char* pszCaFile = nullptr) {
  FILE* pFile = std::fopen(pszLocal, bUpload ? "rb" : "wb");
  if (pFile == nullptr) {
    std::fprintf(stderr, "curl_smoke: cannot open %s\n", pszLocal);
    return false;
  }
  CURL* pCurl = curl_easy_init();
  if (pCurl == nullptr) {
    std::fclose(pFile);
    std::fprintf(stderr, "curl_smoke: curl_easy_init failed\n");
    return false;
  }
  char szError[CURL_ERROR_SIZE] = "";
  curl_easy_setopt(pCurl, CURLOPT_URL, strUrl.c_str());
  curl_easy_setopt(pCurl, CURLOPT_ERRORBUFFER, szError);
  curl_easy_setopt(pCurl, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(pCurl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(pCurl, CURLOPT_CONNECTTIMEOUT, 20L);
  curl_easy_setopt(pCurl, CURLOPT_TIMEOUT, 60L);
  if (pszCaFile != nullptr) curl_easy_setopt(pCurl, CURLOPT_CAINFO, pszCaFile);
  if (bUpload) {
    std::fseek(pFile, 0, SEEK_END);
    const long nSize = std::ftell(pFile);
    std::rewind(pFile);
    curl_easy_setopt(pCurl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(pCurl, CURLOPT_READDATA, pFile);
    curl_easy_setopt(pCurl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(nSize));
  } else {
    curl_easy_setopt(pCurl, CURLOPT_WRITEFUNCTION, WriteToFile);
    curl_easy_setopt(pCurl, CURLOPT_WRITEDATA, pFile);
  }
  const CURLcode nResult = curl_easy_perform(pCurl);
  curl_easy_cleanup(pCurl);
  const bool bClosed = std::fclose(pFile) == 0;
  if (nResult != CURLE_OK) {
    std::fprintf(stderr, "curl_smoke: %s %s: %s (%s)\n", bUpload ? "upload to" : "download of", strUrl.c_str(),
                 curl_easy_strerror(nResult), szError);
    return false;
  }
  if (!bClosed) {
    std::fprintf(stderr, "curl_smoke: closing %s failed\n", pszLocal);
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 5) {
    std::fprintf(stderr, "usage: curl_smoke <ftp-base-url> <http-url> [<https-url> <ca-file>]\n");
    return 1;
  }
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
    std::fprintf(stderr, "curl_smoke: curl_global_init failed\n");
    return 1;
  }
  std::printf("%s\n", curl_version());
  const std::string strFtp = argv[1];
  bool bOk = Transfer(strFtp + "down.bin", "down.got", false);
  bOk = Transfer(strFtp + "up.bin", "up.bin", true) && bOk;
  bOk = Transfer(argv[2], "http.got", false) && bOk;
  if (argc == 5) bOk = Transfer(argv[3], "https.got", false, argv[4]) && bOk;
  curl_global_cleanup();
  return bOk ? 0 : 1;
}
