// The exported pool-access facade.
#include <new>

#include "platform/contain.h"
#include "platform/platform.h"
#include "pool/kx_data_pool_access.h"
#include "qltfsdk/datapoolaccess.h"

QLCT_DataPoolAccess::QLCT_DataPoolAccess() : m_pImpl(new (std::nothrow) KxDataPoolAccess) {}

QLCT_DataPoolAccess::~QLCT_DataPoolAccess() { delete m_pImpl; }

int QLCT_DataPoolAccess::Initialize() { return 1; }

int QLCT_DataPoolAccess::Operation(CComBSTR strName, void* pData) {
  if (!m_pImpl) return 0;
  return QltContain(0, [&] { return m_pImpl->Operation(strName, pData); });
}

int QLCT_DataPoolAccess::UnInitialize() { return 1; }
