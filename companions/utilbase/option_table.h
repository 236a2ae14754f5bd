// The process-wide table behind QLT_WriterOption and QLT_WriterOption2.
#ifndef QLTFSDK_COMPANIONS_UTILBASE_OPTION_TABLE_H
#define QLTFSDK_COMPANIONS_UTILBASE_OPTION_TABLE_H

#include <cstdint>
#include <string>
#include <unordered_map>

#include "platform/platform.h"

namespace qlt::utilbase {

// Options registered for one file; 0 in a field means "not registered".
struct WriterOptions {
  int nBlockSize = 0;
  uint64_t nPresetSize = 0;
};

// Per-file writer options keyed by file name. Names are compared without
// regard to case, and '/' and '\' count as the same separator, so a host may
// register "C:/Data/A.DAT" and the writer find it as "c:\data\a.dat".
// Thread-safe: every operation takes m_cs; any thread may call.
class COptionTable {
 public:
  // The one table of the process, alive while the library is loaded.
  static COptionTable& Instance();

  COptionTable() { InitializeCriticalSection(&m_cs); }
  COptionTable(const COptionTable&) = delete;
  COptionTable& operator=(const COptionTable&) = delete;

  // Copies the options of the file into *pOut; false when it has no entry.
  bool Find(const wchar_t* pszName, WriterOptions* pOut);
  // Sets the block size (> 0) of the file, creating its entry.
  void SetBlockSize(const wchar_t* pszName, int nBytes);
  // Sets the preset size of the file; 0 removes it (and the entry, when
  // nothing else is registered).
  void SetPresetSize(const wchar_t* pszName, uint64_t nBytes);
  // Removes the file's entry; false when there was none.
  bool Erase(const wchar_t* pszName);

 private:
  static std::wstring Key(const wchar_t* pszName);

  CRITICAL_SECTION m_cs;
  std::unordered_map<std::wstring, WriterOptions> m_mapOptions GUARDED_BY(m_cs);
};

}  // namespace qlt::utilbase

#endif  // QLTFSDK_COMPANIONS_UTILBASE_OPTION_TABLE_H
