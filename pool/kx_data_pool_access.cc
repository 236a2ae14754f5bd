#include "pool/kx_data_pool_access.h"

#include <cwchar>

#include "pool/registry.h"

namespace {

enum class Op { kPoolStatus, kSetProps, kGetProps, kSetIndex, kGetIndex, kClearIndex };

struct NamedOp {
  const wchar_t* name;
  Op op;
};

// In the order names are compared; the first equal name wins.
constexpr NamedOp kOps[] = {
    {L"get_PoolStatus", Op::kPoolStatus},        {L"set_WriteFileProps", Op::kSetProps},
    {L"get_WriteFileProps", Op::kGetProps},      {L"set_WriteFileIndexProps", Op::kSetIndex},
    {L"get_WriteFileIndexProps", Op::kGetIndex}, {L"clear_WriteFileIndexProps", Op::kClearIndex},
};

int Run(Op op, void* pData) {
  using namespace qlt::pool;
  switch (op) {
    case Op::kPoolStatus: return FindWriterStatus(static_cast<QLCT_POOL_STATUS_ST*>(pData));
    case Op::kSetProps: return SetWriteFileProps(static_cast<QLCT_WRITEFILE_PROPS_ST*>(pData));
    case Op::kGetProps: return GetWriteFileProps(static_cast<QLCT_WRITEFILE_PROPS_ST*>(pData));
    case Op::kSetIndex: return SetWriteFileIndexProps(static_cast<QLCT_WRITE_FILE_INDEX_PROPS_ST*>(pData));
    case Op::kGetIndex: return GetWriteFileIndexProps(static_cast<QLCT_WRITE_FILE_INDEX_PROPS_ST*>(pData));
    case Op::kClearIndex: return ClearWriteFileIndexProps(static_cast<QLCT_WRITE_FILE_INDEX_PROPS_ST*>(pData));
  }
  return 0;
}

}  // namespace

int KxDataPoolAccess::Operation(BSTR name, void* pData) {
  if (!name) return 0;
  UINT nLength = SysStringLen(name);
  for (const NamedOp& entry : kOps) {
    if (wcslen(entry.name) != nLength || wmemcmp(entry.name, name, nLength) != 0) continue;
    return pData ? Run(entry.op, pData) : 0;
  }
  return 0;
}
