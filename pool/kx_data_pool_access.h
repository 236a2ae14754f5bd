// The implementation behind QLCT_DataPoolAccess: dispatches the named
// operations to the registry. It holds no state, so any number may exist.
//
// Threading: any thread, on one object or several.
#ifndef QLTFSDK_POOL_KX_DATA_POOL_ACCESS_H
#define QLTFSDK_POOL_KX_DATA_POOL_ACCESS_H

#include "qltfsdk/wintypes.h"

class KxDataPoolAccess {
 public:
  KxDataPoolAccess() = default;
  virtual ~KxDataPoolAccess() = default;
  KxDataPoolAccess(const KxDataPoolAccess&) = delete;
  KxDataPoolAccess& operator=(const KxDataPoolAccess&) = delete;

  // Runs the registry operation that name names exactly (see
  // qltfsdk/datapoolaccess.h) on pData. 0 for an unknown or null name or a
  // null pData; otherwise the registry operation's result. May throw
  // std::bad_alloc only through the records' copies, which it catches.
  int Operation(BSTR name, void* pData);
};

#endif  // QLTFSDK_POOL_KX_DATA_POOL_ACCESS_H
