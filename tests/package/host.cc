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
  // The safe writer through its exported factory and virtual operations.
  QLCT_FileEx* writer = QLCT_CreateFileExObj();
  CComBSTR out(L"C:\\qltfsdk-host-check.dat");
  DWORD written = 0;
  int wrote = writer && writer->Initialize(nullptr) &&
              writer->CreateKXFile(out, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr) &&
              writer->WriteFile("hello", 5, &written, nullptr) && writer->CloseHandle();
  QLCT_DeleteFileExObj(writer);
  std::printf("writer wrote %u bytes: %d\n", written, wrote);
  return n == 5 && QLT_WriterOption::GetWriteBlockSize(name) == 65536 && found == 1 && props.dwValue1 == 1 && wrote ? 0
                                                                                                                    : 1;
}
