// QLT_FileTransfer: the exported facade over KxFileTransfer. No exception
// leaves an operation: each one fails with 0 and a last error instead
// (ERROR_NOT_ENOUGH_MEMORY when memory ran out).
#include <new>

#include "qltfsdk/filetransfer.h"
#include "transfer/kx_file_transfer.h"

namespace {

// Runs fn; 0 with a last error if it throws.
template <class Fn>
int Contained(Fn fn) {
  try {
    return fn();
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  } catch (...) {
    SetLastError(ERROR_INVALID_FUNCTION);
  }
  return 0;
}

}  // namespace

QLT_FileTransfer::QLT_FileTransfer() : m_pImpl(nullptr) {
  Contained([this] {
    m_pImpl = new KxFileTransfer;
    if (!m_pImpl->IsValid()) {
      delete m_pImpl;
      m_pImpl = nullptr;
    }
    return 1;
  });
}

QLT_FileTransfer::~QLT_FileTransfer() { delete m_pImpl; }

int QLT_FileTransfer::Initialize() { return m_pImpl ? 1 : 0; }

int QLT_FileTransfer::SetProgressCallBack(KX_TRANS_PROGRESS_CALLBACK pfnCallback, void* pUserData) {
  return Contained([&] {
    if (!m_pImpl) return 0;
    m_pImpl->SetProgressCallBack(pfnCallback, pUserData);
    return 1;
  });
}

int QLT_FileTransfer::SetTransferBitrate(int nBitsPerSecond) {
  return Contained([&] {
    if (!m_pImpl) return 0;
    m_pImpl->SetTransferBitrate(nBitsPerSecond);
    return 1;
  });
}

int QLT_FileTransfer::TransferFile(CComBSTR strSource, CComBSTR strDestination) {
  return Contained([&] { return m_pImpl ? m_pImpl->TransferFile(strSource.m_str, strDestination.m_str) : 0; });
}

int QLT_FileTransfer::Abort() {
  return Contained([&] {
    if (!m_pImpl) return 0;
    m_pImpl->Abort();
    return 1;
  });
}
