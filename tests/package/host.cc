// A host program built against the installed SDK: one include, one package.
#include <qltfsdk/qltfsdk.h>

#include <cstdio>
#include <string>

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
  // A name beyond ASCII (a character outside the basic plane too) through
  // the writer, the accessor and the copy.
  const wchar_t* wide = L"C:\\\u00DCn\u00EFc\u00F8d\u00E9-\u6587\u4EF6-\U0001F600.bin";
  const wchar_t* copied = L"C:\\\u00DCn\u00EFc\u00F8d\u00E9-\u6587\u4EF6-copy.bin";
  QLCT_FileEx* named = QLCT_CreateFileExObj();
  written = 0;
  bool wroteNamed =
      named && named->Initialize(nullptr) &&
      named->CreateKXFile(CComBSTR(wide), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr) &&
      named->WriteFile("unicode", 7, &written, nullptr) && named->CloseHandle();
  QLCT_DeleteFileExObj(named);
  bool copiedNamed = transfer.TransferFile(CComBSTR(wide), CComBSTR(copied)) > 0;  // the rate achieved
  QLCT_FileAccess reader;
  BYTE back[16] = {};
  int got = reader.OpenFile(CComBSTR(copied), 1) ? reader.Read(back, 16) : -1;
  reader.CloseFile();
  bool named_ok = wroteNamed && copiedNamed && got == 7 && std::string(reinterpret_cast<char*>(back), 7) == "unicode";
  std::printf("non-ASCII name: written %d, copied %d, read back %d bytes: %d\n", wroteNamed, copiedNamed, got,
              named_ok);
  return named_ok && n == 5 && QLT_WriterOption::GetWriteBlockSize(name) == 65536 && found == 1 &&
                 props.dwValue1 == 1 && wrote
             ? 0
             : 1;
}
