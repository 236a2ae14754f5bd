// The logging library (QltLogBookU): a named, thread-safe line log.
//
// Items written with operator- (or operator<<) are gathered per thread and
// become one line at endl, so chains from several threads never mix. Lines go
// to "sdk-log/<name>/<name>.log" beside the logging library (or to
// "$QLTFS_LOG_ROOT/<name>/<name>.log" when that variable is set),
// time-stamped, flushed as each line ends and rotated by size. A log without
// ConfigName uses the name "QltLogBook". The file and its folders are made
// when the first line ends, so a log that never writes touches nothing.
//
// Items are joined with one space, unless one side already has white space
// at the boundary ("Offset = " then 0 gives "Offset = 0"). Line breaks inside
// an item become spaces. Logging never throws and reports no failure: when
// the file cannot be opened or written the line is dropped (and reported
// through OutputDebugStringW).
//
// Any thread may write; the object must outlive every chain written on it.
// Several objects with the same name share one file.
#ifndef QLTFSDK_COMPANIONS_LOGBOOK_LOGBOOK_API_H
#define QLTFSDK_COMPANIONS_LOGBOOK_LOGBOOK_API_H

#include <string>

#include "platform/platform.h"

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

  // Names the log; lines ended afterwards go to that name's file. Returns 1,
  // or 0 (name unchanged) for an empty name, "." or "..", or a name holding
  // a path separator. Call before writing.
  int ConfigName(CComBSTR strName);

  // Each item operator appends one item to the calling thread's unfinished
  // line of this log and returns *this, so items chain left to right. Texts
  // are written as UTF-8 (a null string is an empty item), integers in
  // decimal, doubles with three decimals. A manipulator is called with this
  // log: endl ends the line. operator<< is the same as operator-.
  QLT_LogBookU& operator-(const CComBSTR& text);
  QLT_LogBookU& operator-(unsigned long value);
  QLT_LogBookU& operator-(__int64 value);
  QLT_LogBookU& operator-(double value);
  QLT_LogBookU& operator-(QLT_LOGBOOK_MANIP manip);
  // The same for the 32-bit values callers usually hold (DWORD, int), which
  // would otherwise be ambiguous between the overloads above.
  QLT_LogBookU& operator-(unsigned int value);
  QLT_LogBookU& operator-(int value);

  QLT_LogBookU& operator<<(const CComBSTR& text);
  QLT_LogBookU& operator<<(unsigned long value);
  QLT_LogBookU& operator<<(QLT_LOGBOOK_MANIP manip);
  QLT_LogBookU& operator<<(unsigned int value);
  QLT_LogBookU& operator<<(int value);
  QLT_LogBookU& operator<<(__int64 value);
  QLT_LogBookU& operator<<(double value);

  // Ends the calling thread's line and writes it. Used through endl.
  void EndLine();
  // Writes buffered lines to the file now.
  void Flush();
  // The file this log writes to (native path), for tools and tests: the
  // file it opened, or the one its next line would open.
  std::string FilePath() const;

  // Rotation of log files opened from now on in this process: a file is
  // renamed to "<name>.1.log" (older ones move up, the oldest beyond
  // nMaxFiles is removed) when the next line would take it past nMaxBytes.
  // Defaults: 10 MiB, 5 older files. Returns 1, or 0 (unchanged) when
  // either value is 0. Any thread may call.
  static int SetRotation(size_t nMaxBytes, size_t nMaxFiles);

 private:
  void Append(const std::string& item);
  struct Impl;
  Impl* m_pImpl;  // owned
};

// Line end manipulator: ends the calling thread's current line.
QLTLOGBOOK_API QLT_LogBookU& endl(QLT_LogBookU& log, unsigned long reserved);

#endif  // QLTFSDK_COMPANIONS_LOGBOOK_LOGBOOK_API_H
