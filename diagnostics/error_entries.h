// The error-log entries, one function per event: each gives the entry's
// title and detail texts, so every component that reports an event writes
// the same bytes for it. WriteErrorLogEntry (error_log.h) writes them.
//
// Each function may throw std::bad_alloc while building its text; it has no
// other failure and touches no state, so any thread may call it.
#ifndef QLTFSDK_DIAGNOSTICS_ERROR_ENTRIES_H
#define QLTFSDK_DIAGNOSTICS_ERROR_ENTRIES_H

#include <cstdint>
#include <string>

#include "diagnostics/log_file_writer2.h"

// One error-log entry: its title (beginning with "\n") and the detail that
// follows it on the same line (empty: the title stands alone).
struct CErrorLogEntry {
  const char* pszTitle;
  std::wstring strDetail;
};

// A write that did not write everything: nToWrite bytes asked, nWritten done.
CErrorLogEntry WriteFailedEntry(int64_t nToWrite, int64_t nWritten);
// A read that failed: nToRead bytes asked, nRead done.
CErrorLogEntry ReadFailedEntry(int64_t nToRead, int64_t nRead);
// A seek that failed: the distance (or target) asked and the position it gave.
CErrorLogEntry SeekFailedEntry(int64_t nDistance, int64_t nNewPos);
// The position could not be read or set before a read.
CErrorLogEntry SeekBeforeReadFailedEntry(int64_t nDistance, int64_t nNewPos);
// The seek back to the last good position failed while a write was retried,
// or the position after a retried write could not be read.
CErrorLogEntry RetrySeekFailedEntry(int64_t nDistance, int64_t nNewPos);

// An exception inside the writer's seek and read calls.
CErrorLogEntry SeekExceptionEntry(int64_t nDistance, int64_t nNewPos);
CErrorLogEntry ReadExceptionEntry(int64_t nToRead, int64_t nRead);

// An exception inside the local file accessor's seek, read and write calls.
CErrorLogEntry AccessSeekExceptionEntry(int64_t nPos, int64_t nNewPos);
CErrorLogEntry AccessReadExceptionEntry(int64_t nToRead, int64_t nRead);
CErrorLogEntry AccessWriteExceptionEntry(int64_t nToWrite, int64_t nWritten);

// The virtual storage: an open that failed, a size below 64 bytes, a read
// that returned fewer bytes than asked, a seek that ended elsewhere.
CErrorLogEntry VirtualOpenFailedEntry();
CErrorLogEntry VirtualSizeEntry(int64_t nSize);
CErrorLogEntry VirtualShortReadEntry(int64_t nToRead, int64_t nRead);
CErrorLogEntry VirtualSeekMissedEntry(int64_t nPos, int64_t nNewPos);

// Writes entry as WriteErrorLogEntry (error_log.h) writes a title and detail.
void WriteErrorLogEntry(CLogFileWriter2& log, const std::wstring& filePath, const CErrorLogEntry& entry);

#endif  // QLTFSDK_DIAGNOSTICS_ERROR_ENTRIES_H
