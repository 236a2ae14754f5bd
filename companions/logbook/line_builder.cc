#include "companions/logbook/line_builder.h"

#include <unordered_map>

namespace qlt::logbook {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

using LineMap = std::unordered_map<uint64_t, std::string>;

// This thread's unfinished lines by log serial; touched by its own thread
// only. Held through a plain pointer, which stays readable after the thread's
// destructors have run, so a log object destroyed late in a thread's exit
// (a static one at process exit) still finds a valid map or none.
thread_local LineMap* t_pLines = nullptr;
thread_local bool t_bReaped = false;

// Frees the thread's map when the thread ends.
struct Reaper {
  ~Reaper() {
    delete t_pLines;
    t_pLines = nullptr;
    t_bReaped = true;
  }
  void Arm() {}
};
thread_local Reaper t_reaper;

LineMap& Lines() {
  if (!t_pLines) {
    t_pLines = new LineMap();
    // After the thread's destructors have run a late map is left to the
    // process's end rather than registering a destructor again.
    if (!t_bReaped) t_reaper.Arm();
  }
  return *t_pLines;
}

}  // namespace

void JoinItem(std::string& strLine, const std::string& strItem) {
  if (strItem.empty()) return;
  if (!strLine.empty() && !IsBlank(strLine.back()) && !IsBlank(strItem.front())) strLine += ' ';
  size_t nStart = strLine.size();
  strLine += strItem;
  for (size_t i = nStart; i < strLine.size(); ++i) {
    if (strLine[i] == '\n' || strLine[i] == '\r') strLine[i] = ' ';
  }
}

std::string& CPendingLines::LineOf(uint64_t nSerial) { return Lines()[nSerial]; }

std::string CPendingLines::Take(uint64_t nSerial) {
  if (!t_pLines) return std::string();
  auto it = t_pLines->find(nSerial);
  if (it == t_pLines->end()) return std::string();
  std::string strLine = std::move(it->second);
  t_pLines->erase(it);
  return strLine;
}

}  // namespace qlt::logbook
