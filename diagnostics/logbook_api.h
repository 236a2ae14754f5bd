// The logging library (QltLogBookU): a named, thread-safe line log.
//
// Items written with operator- (or operator<<) are gathered per thread and
// become one line at endl, so chains from several threads never mix. Lines go
// to "sdk-log/<name>/<name>.log" beside the logging library (or under
// $QLTFS_LOG_ROOT when that is set), time-stamped and rotated by size. A log
// without ConfigName uses the name "QltLogBook". Any thread may write; the
// object must outlive every chain written on it.
#ifndef QLTFSDK_DIAGNOSTICS_LOGBOOK_API_H
#define QLTFSDK_DIAGNOSTICS_LOGBOOK_API_H

#include <string>

#include "qltfsdk/wintypes.h"

#if defined(QLTLOGBOOK_BUILD)
#define QLTLOGBOOK_API QLT_DECL_EXPORT
#else
#define QLTLOGBOOK_API QLT_DECL_IMPORT
#endif

class QLT_LogBookU;
typedef QLT_LogBookU& (*QLT_LOGBOOK_MANIP)(QLT_LogBookU&, unsigned long);

class QLTLOGBOOK_API QLT_LogBookU {
 public:
  QLT_LogBookU();
  virtual ~QLT_LogBookU();
  QLT_LogBookU(const QLT_LogBookU&) = delete;
  QLT_LogBookU& operator=(const QLT_LogBookU&) = delete;

  // Names the log; lines written afterwards go to that name's file. Returns
  // 1, or 0 for an empty name (unchanged). Call before writing.
  int ConfigName(CComBSTR strName);

  QLT_LogBookU& operator-(const CComBSTR& text);
  QLT_LogBookU& operator-(unsigned long value);
  QLT_LogBookU& operator-(__int64 value);
  QLT_LogBookU& operator-(double value);
  QLT_LogBookU& operator-(QLT_LOGBOOK_MANIP manip);

  QLT_LogBookU& operator<<(const CComBSTR& text);
  QLT_LogBookU& operator<<(unsigned long value);
  QLT_LogBookU& operator<<(QLT_LOGBOOK_MANIP manip);

  // Ends the calling thread's line and writes it. Used through endl.
  void EndLine();
  // Writes buffered lines to the file now.
  void Flush();
  // The file this log writes to (native path), for tools and tests.
  std::string FilePath() const;

 private:
  void Append(const std::string& item);
  struct Impl;
  Impl* m_pImpl;  // owned
};

// Line end manipulator: ends the calling thread's current line.
QLTLOGBOOK_API QLT_LogBookU& endl(QLT_LogBookU& log, unsigned long reserved);

#endif  // QLTFSDK_DIAGNOSTICS_LOGBOOK_API_H
