#include "errors.h"

#include <CLI/CLI.hpp>
#include <cstdio>

namespace {

// What the web plug-in reports, by number: the tool builds against installed
// headers that may predate some of these names.
constexpr DWORD kErrorSeek = 25;
constexpr DWORD kErrorBadNetResponse = 58;
constexpr DWORD kErrorNegativeSeek = 131;
constexpr DWORD kErrorConnectionRefused = 1225;
constexpr DWORD kErrorNotAuthenticated = 1244;

}  // namespace

std::string ErrorText(DWORD nError) {
  const char* pszWords;
  switch (nError) {
    case ERROR_SUCCESS: pszWords = "no error reported"; break;
    case ERROR_FILE_NOT_FOUND: pszWords = "the file does not exist"; break;
    case ERROR_PATH_NOT_FOUND: pszWords = "the path does not exist"; break;
    case ERROR_TOO_MANY_OPEN_FILES: pszWords = "too many open files"; break;
    case ERROR_ACCESS_DENIED: pszWords = "access is denied"; break;
    case ERROR_INVALID_HANDLE: pszWords = "the handle is not valid"; break;
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY: pszWords = "not enough memory"; break;
    case ERROR_INVALID_DRIVE: pszWords = "the drive does not exist"; break;
    case ERROR_WRITE_FAULT: pszWords = "the device cannot be written"; break;
    case ERROR_READ_FAULT: pszWords = "the device cannot be read"; break;
    case ERROR_GEN_FAILURE: pszWords = "the device is not working"; break;
    case ERROR_SHARING_VIOLATION: pszWords = "the file is in use by another program"; break;
    case ERROR_LOCK_VIOLATION: pszWords = "part of the file is locked"; break;
    case ERROR_HANDLE_EOF: pszWords = "the file ended early"; break;
    case ERROR_HANDLE_DISK_FULL:
    case ERROR_DISK_FULL: pszWords = "the disk is full"; break;
    case ERROR_NOT_SUPPORTED: pszWords = "the request is not supported"; break;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS: pszWords = "the file already exists"; break;
    case ERROR_INVALID_PARAMETER: pszWords = "a parameter is not valid"; break;
    case ERROR_INVALID_NAME: pszWords = "the name is not valid"; break;
    case ERROR_DIR_NOT_EMPTY: pszWords = "the directory is not empty"; break;
    case ERROR_BUSY: pszWords = "the resource is busy"; break;
    case ERROR_FILENAME_EXCED_RANGE: pszWords = "the name is too long"; break;
    case ERROR_DIRECTORY: pszWords = "the directory name is not valid"; break;
    case ERROR_TIMEOUT: pszWords = "the operation timed out"; break;
    case ERROR_CANCELLED: pszWords = "the operation was cancelled"; break;
    // The FTP back-end's internet error codes.
    case 12002: pszWords = "the server did not answer in time"; break;
    case 12003: pszWords = "the server refused the request"; break;
    case 12015: pszWords = "the server refused the login"; break;
    case 12029: pszWords = "cannot connect to the server"; break;
    case 12030: pszWords = "the server ended the connection"; break;
    default: pszWords = "unexpected failure"; break;
  }
  return std::string(pszWords) + " (error " + std::to_string(nError) + ")";
}

std::string WebErrorText(DWORD nError, bool bFtp) {
  const char* pszWords = nullptr;
  switch (nError) {
    case ERROR_ACCESS_DENIED:
      pszWords = bFtp ? "access denied by the server (530)" : "access denied by the store (403)";
      break;
    case ERROR_PATH_NOT_FOUND: pszWords = bFtp ? "no such folder" : "no such bucket"; break;
    case ERROR_FILE_NOT_FOUND: pszWords = bFtp ? "no such file" : "no such object"; break;
    case kErrorConnectionRefused: pszWords = "connection refused"; break;
    case ERROR_TIMEOUT:
      pszWords = bFtp ? "the server did not answer in time" : "the store did not answer in time";
      break;
    case kErrorNotAuthenticated:
      pszWords = "no credentials (set AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY or ~/.aws/credentials)";
      break;
    case kErrorBadNetResponse: pszWords = bFtp ? "the server failed" : "the store failed"; break;
    case kErrorNegativeSeek:
    case kErrorSeek: pszWords = "the store cannot seek there"; break;
    default: return ErrorText(nError);
  }
  return std::string(pszWords) + " (error " + std::to_string(nError) + ")";
}

std::string CannotText(const std::string& strAction, const std::string& strPath, DWORD nError) {
  return "cannot " + strAction + " '" + strPath + "': " + ErrorText(nError);
}

void Fail(const std::string& strCommand, const std::string& strMessage, int nExitCode) {
  std::fprintf(stderr, "qltfs %s: %s\n", strCommand.c_str(), strMessage.c_str());
  throw CLI::RuntimeError(nExitCode);
}
