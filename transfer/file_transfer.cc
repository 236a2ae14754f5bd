// QLT_FileTransfer: the exported facade over KxFileTransfer.
#include <new>

#include "qltfsdk/filetransfer.h"
#include "transfer/kx_file_transfer.h"

QLT_FileTransfer::QLT_FileTransfer() : m_pImpl(new (std::nothrow) KxFileTransfer) {
  if (m_pImpl && !m_pImpl->IsValid()) {
    delete m_pImpl;
    m_pImpl = nullptr;
  }
}

QLT_FileTransfer::~QLT_FileTransfer() { delete m_pImpl; }

int QLT_FileTransfer::Initialize() { return m_pImpl ? 1 : 0; }

int QLT_FileTransfer::SetProgressCallBack(KX_TRANS_PROGRESS_CALLBACK pfnCallback, void* pUserData) {
  if (!m_pImpl) return 0;
  m_pImpl->SetProgressCallBack(pfnCallback, pUserData);
  return 1;
}

int QLT_FileTransfer::SetTransferBitrate(int nBitsPerSecond) {
  if (!m_pImpl) return 0;
  m_pImpl->SetTransferBitrate(nBitsPerSecond);
  return 1;
}

int QLT_FileTransfer::TransferFile(CComBSTR strSource, CComBSTR strDestination) {
  if (!m_pImpl) return 0;
  return m_pImpl->TransferFile(strSource.m_str, strDestination.m_str);
}

int QLT_FileTransfer::Abort() {
  if (!m_pImpl) return 0;
  m_pImpl->Abort();
  return 1;
}
