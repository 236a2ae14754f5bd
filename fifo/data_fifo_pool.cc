// The exported pool: a facade that forwards to KxDataFifoPool.
#include "qltfsdk/datafifopool.h"

#include <string>

#include "fifo/kx_data_fifo_pool.h"
#include "platform/contain.h"

QLCT_DataFifoPool::QLCT_DataFifoPool() : m_pImpl(nullptr) {}

QLCT_DataFifoPool::~QLCT_DataFifoPool() { delete m_pImpl; }

int QLCT_DataFifoPool::Initialize() {
  return QltContain(0, [&] {
    if (!m_pImpl) m_pImpl = new KxDataFifoPool;
    return 1;
  });
}

int QLCT_DataFifoPool::SetFifoOpMode(int nMode) {
  return QltContain(0, [&] { return m_pImpl ? m_pImpl->SetFifoOpMode(nMode) : 0; });
}

int QLCT_DataFifoPool::SetBufferingMode(int nMode) {
  return QltContain(0, [&] { return m_pImpl ? m_pImpl->SetBufferingMode(nMode) : 0; });
}

int QLCT_DataFifoPool::SetDiskPoolProps(CComBSTR strFolder, DWORD nSize) {
  return QltContain(0, [&] {
    if (!m_pImpl) return 0;
    std::wstring folder = strFolder.m_str ? std::wstring(strFolder.m_str, strFolder.Length()) : std::wstring();
    return static_cast<int>(m_pImpl->SetDiskPoolProps(folder, nSize));
  });
}

int QLCT_DataFifoPool::SetMemoryPoolSize(DWORD nBytes) {
  return QltContain(0, [&] { return m_pImpl ? m_pImpl->SetMemoryPoolSize(nBytes) : 0; });
}

int QLCT_DataFifoPool::SetWriteCacheSize(DWORD nBytes) {
  return QltContain(0, [&] { return m_pImpl ? m_pImpl->SetWriteCacheSize(nBytes) : 0; });
}

int QLCT_DataFifoPool::StartFifo() {
  return QltContain(0, [&] { return m_pImpl ? m_pImpl->StartFifo() : 0; });
}

int QLCT_DataFifoPool::WriteBuffer(const void* pData, int nLen) {
  return QltContain(0, [&] { return m_pImpl ? m_pImpl->WriteBuffer(pData, nLen) : 0; });
}

int QLCT_DataFifoPool::ReadBuffer(void* pData, int& nLen) {
  nLen = -1;
  return QltContain(0, [&] {
    if (!m_pImpl) return 0;
    LONG n = -1;
    int nResult = m_pImpl->ReadBuffer(pData, n);
    nLen = n;
    return nResult;
  });
}

int QLCT_DataFifoPool::StopFifo() {
  return QltContain(0, [&] { return m_pImpl ? m_pImpl->StopFifo() : 0; });
}
