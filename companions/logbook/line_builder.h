// Gathering the items of one log line, per thread.
#ifndef QLTFSDK_COMPANIONS_LOGBOOK_LINE_BUILDER_H
#define QLTFSDK_COMPANIONS_LOGBOOK_LINE_BUILDER_H

#include <cstdint>
#include <string>

namespace qlt::logbook {

// Appends strItem to strLine: one space goes between them unless the line
// ends or the item starts with white space (or either is empty). Line breaks
// inside the item become spaces, so a chain always stays one line.
void JoinItem(std::string& strLine, const std::string& strItem);

// The calling thread's unfinished lines, one per log object, keyed by the
// object's serial number (never reused, so a new object at a freed address
// cannot inherit a stale line). Only the calling thread's own lines are
// touched, so no lock is needed.
class CPendingLines {
 public:
  // The calling thread's unfinished line for the log (created empty).
  static std::string& LineOf(uint64_t nSerial);
  // Removes and returns the calling thread's line for the log ("" if none).
  static std::string Take(uint64_t nSerial);
};

}  // namespace qlt::logbook

#endif  // QLTFSDK_COMPANIONS_LOGBOOK_LINE_BUILDER_H
