// Temporary overflow file: create under a GUID name, append records, read
// them back, delete.
#include "fifo/fifo_disk_file.h"

#include <cstdint>
#include <cstdio>

#include "fifo/data_fifo_man.h"
#include "platform/guid_text.h"

CFifoDiskFile::CFifoDiskFile() = default;

CFifoDiskFile::~CFifoDiskFile() { CloseAndDelete(); }

BOOL CFifoDiskFile::SetFolder(const std::wstring& strFolder) {
  m_strFolder = strFolder;
  return TRUE;
}

BOOL CFifoDiskFile::CreateNewFile() {
  CloseFile();
  GUID guid{};
  CoCreateGuid(&guid);
  m_strFileName = GuidText(guid, L"");
  m_strPath = m_strFolder + L"\\" + m_strFileName + L".dat";
  m_hFile = CreateFileW(m_strPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  m_nWrittenSize = 0;
  return IsOpen();
}

BOOL CFifoDiskFile::WriteRecord(const void* pPayload, LONG nLen) {
  if (nLen < 0 || (!pPayload && nLen > 0)) return FALSE;
  if (!IsOpen() && !CreateNewFile()) return FALSE;
  uint8_t len[kRecordPrefixBytes];
  StoreLe32(len, static_cast<DWORD>(nLen));
  DWORD nDone = 0;
  // WriteFile hands the bytes to the system at once (there is no user-space
  // buffer to flush), so each record is on its way to the disk when this
  // returns.
  if (!WriteFile(m_hFile, len, kRecordPrefixBytes, &nDone, nullptr) || nDone != kRecordPrefixBytes) return FALSE;
  if (nLen > 0 &&
      (!WriteFile(m_hFile, pPayload, static_cast<DWORD>(nLen), &nDone, nullptr) || nDone != static_cast<DWORD>(nLen)))
    return FALSE;
  m_nWrittenSize += static_cast<DWORD>(nLen) + kRecordPrefixBytes;
  return TRUE;
}

BOOL CFifoDiskFile::ReadRecord(void* pDst, LONG& nLen) {
  if (!IsOpen()) {
    m_hFile =
        CreateFileW(m_strPath.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (!IsOpen()) {
      nLen = 0;
      return FALSE;
    }
  }
  DWORD nRead = 0;
  if (!pDst) {
    uint8_t len[kRecordPrefixBytes];
    if (!ReadFile(m_hFile, len, kRecordPrefixBytes, &nRead, nullptr) || nRead != kRecordPrefixBytes) {
      nLen = 0;
      return FALSE;
    }
    nLen = static_cast<LONG>(LoadLe32(len));
    return TRUE;
  }
  if (nLen <= 0) return TRUE;
  if (!ReadFile(m_hFile, pDst, static_cast<DWORD>(nLen), &nRead, nullptr)) {
    nLen = 0;
    return FALSE;
  }
  nLen = static_cast<LONG>(nRead);
  return TRUE;
}

bool CFifoDiskFile::HasRoom(LONG nLen) const {
  // In 64 bits: a file that took one record of nearly 2 GiB must not wrap
  // round to "room left" for the next one.
  return uint64_t{m_nMaxSize} > uint64_t{m_nWrittenSize} + static_cast<DWORD>(nLen);
}

BOOL CFifoDiskFile::CloseFile() {
  if (IsOpen()) CloseHandle(m_hFile);
  m_hFile = INVALID_HANDLE_VALUE;
  return TRUE;
}

void CFifoDiskFile::CloseAndDelete() {
  CloseFile();
  if (!m_strPath.empty()) DeleteFileW(m_strPath.c_str());
}
