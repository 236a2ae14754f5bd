// CLogFileWriter2: a small thread-safe text log file writer. Each object
// that writes error-log entries (a writer, an access back-end) owns one.
#ifndef QLTFSDK_DIAGNOSTICS_LOG_FILE_WRITER2_H
#define QLTFSDK_DIAGNOSTICS_LOG_FILE_WRITER2_H

#include <atomic>
#include <string>

#include "diagnostics/log_text_file.h"
#include "platform/platform.h"

struct LogFileOptions {
  int32_t nSizeLimit = 10485760;  // bytes; at or past it Write reopens the file
  int32_t nFlushInterval = 20;    // writes gathered before a flush
  bool bOverwrite = false;        // Open empties the file instead of appending
};

// Writes text lines to one file at a time. Open chooses between emptying the
// file (overwrite option) and appending to the highest-numbered member of a
// family of files "name[N].ext" (default). Every failure inside is contained:
// platform errors become results, exceptions are caught and reported to the
// debugger output, and nothing propagates to the caller.
//
// Threading: every operation takes the object's own lock, so calls from
// several threads never interleave inside one call; a sequence of calls is
// not one unit. The enabled switch is a relaxed atomic (an independent flag
// read at the start of each call).
class CLogFileWriter2 {
 public:
  CLogFileWriter2();
  virtual ~CLogFileWriter2();
  CLogFileWriter2(const CLogFileWriter2&) = delete;
  CLogFileWriter2& operator=(const CLogFileWriter2&) = delete;

  // Turns the writer on or off; every other operation does nothing and
  // returns 0 while it is off. Returns the new value.
  bool SetEnable(bool bEnable);
  // Copies the options. Returns 1, or 0 (nothing copied) when disabled.
  int SetOptions(const LogFileOptions& options);
  // Closes any open file and opens path (overwrite or last-file mode).
  // Returns above 0 on success, 0 on failure, -128 when the stream raised an
  // exception. On success the current path is path itself. After a failed
  // open (not for want of memory) every writer of the process leaves that
  // path alone for 30 seconds and returns 0 at once, unless its missing
  // folder has been made meanwhile: logging never slows the failing
  // operation it records.
  int Open(const std::wstring& path);
  // Appends text ("\n" becomes CR LF) and flushes when bFlushNow or after
  // the flush interval; reopens the file when it reached the size limit.
  // Returns 1, or the reopen's result when one was made, or 0 when
  // disabled. Writing to a closed writer writes nothing and returns 1. A
  // null text writes nothing.
  int Write(const wchar_t* text, bool bFlushNow);
  // Narrow text, taken as UTF-8.
  int Write(const char* text, bool bFlushNow);
  // Closes the file. Returns 1, or 0 when disabled.
  int Close();

  // Creates the directory of path (one level) if missing and opens path
  // empty. Returns non-zero on success, 0 on failure, -128 after an
  // exception. Takes the lock.
  int OpenFileOverwrite(const std::wstring& path);
  // Appends to the highest-numbered file of path's family in its directory,
  // or creates path when the family has no member (never creates the
  // directory). Returns non-zero on success, 0 on failure, -128 after an
  // exception. Takes the lock.
  int OpenLastFile(const std::wstring& path);

  // The path of the last successful Open; empty when closed.
  std::wstring CurrentPath();

 private:
  int WriteText(const std::wstring& text, bool bFlushNow);

  std::atomic<bool> m_bEnabled{true};  // relaxed: an independent switch
  CLogTextFile m_file GUARDED_BY(m_cs);
  std::wstring m_strCurrentPath GUARDED_BY(m_cs);
  int32_t m_nUnflushedWrites GUARDED_BY(m_cs) = 0;
  LogFileOptions m_options GUARDED_BY(m_cs);
  CRITICAL_SECTION m_cs;  // re-entrant: Write may reopen, Open closes
};

#endif  // QLTFSDK_DIAGNOSTICS_LOG_FILE_WRITER2_H
