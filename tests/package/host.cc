// A host program built against the installed SDK: one include, one package.
#include <qltfsdk/qltfsdk.h>

#include <cstdio>
#include <string>

// The check script puts a qltfsdk.ini and an sdk-log/ErrorLog folder beside
// the installed library, and this host runs from a folder of its own: the
// settings must come from there, and a failing call must log there.
bool SettingsAndLogBesideTheLibrary() {
  QLT_SDKINFO_ST info{};
  if (QLT_GetSdkInfo(&info) != 1) return false;
  const std::wstring dir(info.bstrModuleDir ? info.bstrModuleDir : L"");
  const std::wstring ini(info.bstrIniPath ? info.bstrIniPath : L"");
  const bool settings =
      !dir.empty() && ini == dir + L"\\qltfsdk.ini" && info.nWriteBufSize == 128 * 1024 && info.nLogFileOn == 1;
  QLT_FreeSdkInfo(&info);
  // A seek before the start of the file fails and writes an error-log entry.
  QLCT_FileEx* writer = QLCT_CreateFileExObj();
  bool refused = writer && writer->Initialize(nullptr) &&
                 writer->CreateKXFile(CComBSTR(L"C:\\qltfsdk-host-log.dat"), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr) &&
                 writer->SetFilePointer(-10, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER;
  if (writer) writer->CloseHandle();
  QLCT_DeleteFileExObj(writer);
  QLCT_FileAccess log;
  char text[4096] = {};
  int n = log.OpenFile(CComBSTR((dir + L"\\sdk-log\\ErrorLog\\ErrorLogFileForTarnwell.txt").c_str()), 1)
              ? log.Read(reinterpret_cast<BYTE*>(text), sizeof(text) - 1)
              : -1;
  log.CloseFile();
  const bool logged = n > 0 && std::string(text, n).find("seek file pos") != std::string::npos;
  std::printf("beside the library: settings %d, seek refused %d, logged %d\n", settings, refused, logged);
  return settings && refused && logged;
}

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
  const bool beside_ok = SettingsAndLogBesideTheLibrary();
  return beside_ok && named_ok && n == 5 && QLT_WriterOption::GetWriteBlockSize(name) == 65536 && found == 1 &&
                 props.dwValue1 == 1 && wrote
             ? 0
             : 1;
}
