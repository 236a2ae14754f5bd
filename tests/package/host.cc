// A host program built against the installed SDK: one include, one package.
#include <qltfsdk/qltfsdk.h>

#include <cstdio>

int main() {
  QLCT_DataFifoPool pool;
  pool.Initialize();
  if (pool.StartFifo() != 1) return 1;
  pool.WriteBuffer("hello", 5);
  pool.WriteBuffer(nullptr, 0);
  char buf[16];
  int n = 0;
  pool.ReadBuffer(buf, n);
  pool.StopFifo();
  CComBSTR name(L"C:\\data\\a.dat");
  QLT_WriterOption::SetWriteBlockSize(name, 65536);
  QLT_FileTransfer transfer;
  QLCT_DataPoolAccess access;
  QLCT_WRITEFILE_PROPS_ST props = {SysAllocString(L"C:\\data\\a.dat"), 1, 0, 'E'};
  access.Operation(CComBSTR(L"set_WriteFileProps"), &props);
  props.dwValue1 = 0;
  int found = access.Operation(CComBSTR(L"get_WriteFileProps"), &props);
  SysFreeString(props.bstrFileName);
  std::printf("pool read %d bytes, block size %d, transfer %d, props %d\n", n,
              QLT_WriterOption::GetWriteBlockSize(name), transfer.Initialize(), found);
  return n == 5 && QLT_WriterOption::GetWriteBlockSize(name) == 65536 && found == 1 && props.dwValue1 == 1 ? 0 : 1;
}
