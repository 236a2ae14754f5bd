// The text stream under CLogFileWriter2: a file of narrow text (UTF-8) with
// CR LF line ends, written through the platform's file calls.
#ifndef QLTFSDK_DIAGNOSTICS_LOG_TEXT_FILE_H
#define QLTFSDK_DIAGNOSTICS_LOG_TEXT_FILE_H

#include <stdexcept>
#include <string>

#include "platform/platform.h"

// Thrown by CLogTextFile when the platform fails a call on an open file.
// Carries the platform's error code (also left as the thread's last error).
class CLogFileException : public std::runtime_error {
 public:
  CLogFileException(const char* what, DWORD dwError) : std::runtime_error(what), m_dwError(dwError) {}
  DWORD Error() const { return m_dwError; }

 private:
  DWORD m_dwError;
};

// One open text file. WriteString gathers text in memory; Flush hands it to
// the file. Wide text is stored as UTF-8 and every "\n" as CR LF. The file
// is opened shared with every other reader, writer and deleter. Not
// thread-safe: the owner (CLogFileWriter2) serialises the calls.
class CLogTextFile {
 public:
  enum OpenMode {
    kCreateAlways,  // create the file, or empty it when it exists
    kOpenExisting,  // open an existing file without emptying it
  };

  CLogTextFile() = default;
  ~CLogTextFile() { Close(); }
  CLogTextFile(const CLogTextFile&) = delete;
  CLogTextFile& operator=(const CLogTextFile&) = delete;

  // Opens path for writing at its start (an open file is closed first).
  // Returns TRUE, or FALSE with the platform's last error; never throws
  // except std::bad_alloc.
  BOOL Open(const std::wstring& path, OpenMode mode);
  bool IsOpen() const { return m_hFile != INVALID_HANDLE_VALUE; }

  // Adds text to the pending bytes. Throws std::bad_alloc only.
  void WriteString(const std::wstring& text);
  // Writes the pending bytes to the file. Throws CLogFileException when the
  // write fails (the pending bytes are dropped).
  void Flush();
  // File length in bytes including pending bytes; throws CLogFileException.
  ULONGLONG GetLength();
  // Moves the write position to the end of the file; throws CLogFileException.
  void SeekToEnd();
  // Writes the pending bytes if it can and closes the file; failures are
  // dropped. Does nothing when closed. Never throws.
  void Close() noexcept;

 private:
  HANDLE m_hFile = INVALID_HANDLE_VALUE;
  std::string m_strPending;  // converted text not yet handed to the file
};

#endif  // QLTFSDK_DIAGNOSTICS_LOG_TEXT_FILE_H
