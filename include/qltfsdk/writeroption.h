// Per-file writer options of the utility library (qltUtilBase).
//
// A process-wide table keyed by file name (compared without regard to case,
// '/' and '\' counting as the same separator)
// holds a write block size and a preset size per file. The SDK's writer asks
// for both when it creates or attaches a file and clears the entry when it
// closes it; hosts register entries before creating the file. All calls are
// static and may come from any thread.
#ifndef QLTFSDK_WRITEROPTION_H
#define QLTFSDK_WRITEROPTION_H

#include "qltfsdk/wintypes.h"

#if defined(QLTUTILBASE_BUILD)
#define QLTUTILBASE_API QLT_DECL_EXPORT
#else
#define QLTUTILBASE_API QLT_DECL_IMPORT
#endif

class QLTUTILBASE_API QLT_WriterOption {
 public:
  // Write block size for the file: the registered size, else the default
  // block size (524,288 bytes unless SetDefaultWriteBlockSize changed it).
  // Always above 0.
  static int GetWriteBlockSize(CComBSTR strFileName);
  // Registers a block size (bytes) for the file. Returns 1, or 0 for an
  // empty name or a size below 1 (nothing stored).
  static int SetWriteBlockSize(CComBSTR strFileName, int nBytes);
  // Removes every option registered for the file. Returns 1 when an entry
  // was removed, 0 when there was none.
  static int ClearItem(CComBSTR strFileName);
  // The block size given for files without an entry (the SDK sets it from
  // its WriteBufSize setting at load). Values below 1 are ignored; returns 1
  // when stored.
  static int SetDefaultWriteBlockSize(int nBytes);
};

class QLTUTILBASE_API QLT_WriterOption2 {
 public:
  // Preset size for the file: returns 1 and stores the size in nSize when a
  // size above 0 is registered; returns 0 and leaves nSize alone otherwise.
  static int GetPresetFileSize(CComBSTR strFileName, ULONGLONG& nSize);
  // Registers the size to reserve for the file when the writer creates it
  // (0 removes the preset). Returns 1, or 0 for an empty name.
  static int SetPresetFileSize(CComBSTR strFileName, ULONGLONG nSize);
};

#endif  // QLTFSDK_WRITEROPTION_H
