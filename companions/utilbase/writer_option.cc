// QLT_WriterOption and QLT_WriterOption2: static front doors to the option
// table. Each call is contained: out of memory, it fails with 0
// (ERROR_NOT_ENOUGH_MEMORY) and the table keeps its previous state.
#include <atomic>

#include "companions/utilbase/option_table.h"
#include "platform/contain.h"
#include "qltfsdk/writeroption.h"

using qlt::utilbase::COptionTable;
using qlt::utilbase::WriterOptions;

namespace {

constexpr int kDefaultWriteBlockSize = 524288;

// Block size for files without an entry. Relaxed ordering is enough: the
// value is a single independent word and no other data is published with it.
std::atomic<int> g_nDefaultBlockSize{kDefaultWriteBlockSize};

bool HasName(const CComBSTR& strName) { return strName.m_str != nullptr && strName.Length() > 0; }

}  // namespace

int QLT_WriterOption::GetWriteBlockSize(CComBSTR strFileName) {
  // A lookup that fails for want of memory answers as for a file without
  // an entry.
  return QltContain(g_nDefaultBlockSize.load(std::memory_order_relaxed), [&] {
    WriterOptions options;
    if (HasName(strFileName) && COptionTable::Instance().Find(strFileName.m_str, &options) && options.nBlockSize > 0) {
      return options.nBlockSize;
    }
    return g_nDefaultBlockSize.load(std::memory_order_relaxed);
  });
}

int QLT_WriterOption::SetWriteBlockSize(CComBSTR strFileName, int nBytes) {
  return QltContain(0, [&] {
    if (!HasName(strFileName) || nBytes < 1) return 0;
    COptionTable::Instance().SetBlockSize(strFileName.m_str, nBytes);
    return 1;
  });
}

int QLT_WriterOption::ClearItem(CComBSTR strFileName) {
  return QltContain(0, [&] {
    if (!HasName(strFileName)) return 0;
    return COptionTable::Instance().Erase(strFileName.m_str) ? 1 : 0;
  });
}

int QLT_WriterOption::SetDefaultWriteBlockSize(int nBytes) {
  return QltContain(0, [&] {
    if (nBytes < 1) return 0;
    g_nDefaultBlockSize.store(nBytes, std::memory_order_relaxed);
    return 1;
  });
}

int QLT_WriterOption2::GetPresetFileSize(CComBSTR strFileName, ULONGLONG& nSize) {
  return QltContain(0, [&] {
    WriterOptions options;
    if (!HasName(strFileName) || !COptionTable::Instance().Find(strFileName.m_str, &options)) return 0;
    if (options.nPresetSize == 0) return 0;
    nSize = options.nPresetSize;
    return 1;
  });
}

int QLT_WriterOption2::SetPresetFileSize(CComBSTR strFileName, ULONGLONG nSize) {
  return QltContain(0, [&] {
    if (!HasName(strFileName)) return 0;
    COptionTable::Instance().SetPresetSize(strFileName.m_str, nSize);
    return 1;
  });
}
