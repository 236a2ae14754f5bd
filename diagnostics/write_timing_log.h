// The write timing log: while IOWriteTimeOn is set, every block write of the
// file writer is timed and each write slower than IOWriteBlockTimeTh
// milliseconds becomes one line of the logging library's "SDKWriteIO" log.
#ifndef QLTFSDK_DIAGNOSTICS_WRITE_TIMING_LOG_H
#define QLTFSDK_DIAGNOSTICS_WRITE_TIMING_LOG_H

#include "platform/platform.h"

class QLT_LogBookU;

// Takes a reference on the shared "SDKWriteIO" log, creating it for the
// first holder. Each writer calls it once when constructed. Any thread.
void AcquireWriteTimingLog();
// Drops a reference; the last holder destroys the log. Each writer calls it
// once when destroyed. A release without an acquire does nothing. Any thread.
void ReleaseWriteTimingLog();

// The platform write (WriteFile with h, pBuffer, nLength, pWritten,
// pOverlapped), timed when IOWriteTimeOn is non-zero; a write that took more
// than IOWriteBlockTimeTh milliseconds (every write when the threshold is
// negative) is logged with the owner value, the buffered flag, the offset,
// the length and the time it took. With an overlapped record, a write that
// is pending (last error 997) counts as a success. Returns the write's result
// (failed writes are timed and logged the same way); the timing never
// changes it. Lines are logged only while some writer holds the log. Any
// thread.
BOOL TimedWriteFile(HANDLE h, LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, LPOVERLAPPED pOverlapped,
                    __int64 nOffset, int nBuffered, DWORD nOwner);

// Whether a write of dElapsedMs counts as slow: strictly greater than the
// threshold.
inline bool IsSlowWrite(double dElapsedMs, int nThresholdMs) { return dElapsedMs > static_cast<double>(nThresholdMs); }

// For tests and tools: the shared log object (null while no writer holds
// it) and the number of holders.
QLT_LogBookU* CurrentWriteTimingLog();
int WriteTimingLogHolders();

#endif  // QLTFSDK_DIAGNOSTICS_WRITE_TIMING_LOG_H
