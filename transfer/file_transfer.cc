// QLT_FileTransfer: the exported facade over KxFileTransfer. No exception
// leaves an operation: each one fails with 0 and a last error instead
// (ERROR_NOT_ENOUGH_MEMORY when memory ran out).
#include "platform/contain.h"
#include "qltfsdk/filetransfer.h"
#include "transfer/kx_file_transfer.h"

QLT_FileTransfer::QLT_FileTransfer() : m_pImpl(nullptr) {
  QltContain(0, [this] {
    m_pImpl = new KxFileTransfer;
    if (!m_pImpl->IsValid()) {
      delete m_pImpl;
      m_pImpl = nullptr;
    }
    return 1;
  });
}

QLT_FileTransfer::~QLT_FileTransfer() { delete m_pImpl; }

// Without an implementation (construction ran out of memory or events)
// every operation fails with ERROR_NOT_ENOUGH_MEMORY.
int QLT_FileTransfer::Initialize() {
  if (m_pImpl) return 1;
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return 0;
}

int QLT_FileTransfer::SetProgressCallBack(KX_TRANS_PROGRESS_CALLBACK pfnCallback, void* pUserData) {
  return QltContain(0, [&] {
    if (!m_pImpl) return Initialize();
    m_pImpl->SetProgressCallBack(pfnCallback, pUserData);
    return 1;
  });
}

int QLT_FileTransfer::SetTransferBitrate(int nBitsPerSecond) {
  return QltContain(0, [&] {
    if (!m_pImpl) return Initialize();
    m_pImpl->SetTransferBitrate(nBitsPerSecond);
    return 1;
  });
}

int QLT_FileTransfer::TransferFile(CComBSTR strSource, CComBSTR strDestination) {
  return QltContain(
      0, [&] { return m_pImpl ? m_pImpl->TransferFile(strSource.m_str, strDestination.m_str) : Initialize(); });
}

int QLT_FileTransfer::Abort() {
  return QltContain(0, [&] {
    if (!m_pImpl) return Initialize();
    m_pImpl->Abort();
    return 1;
  });
}
