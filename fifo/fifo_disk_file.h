// CFifoDiskFile: one temporary overflow file of the FIFO manager.
//
// A file holds a run of consecutive records, each a 32-bit signed
// little-endian length L followed by exactly L payload bytes, with no header
// or trailer. It is written once from its start, closed, read back once from
// its start and deleted. Its name is 32 lowercase hexadecimal digits made
// from a fresh GUID, plus ".dat", in the folder given by SetFolder.
//
// Thread rule: not thread-safe; the FIFO manager serialises every use (the
// producer writes under its write-file lock, the mover reads a file that is
// no longer written).
#ifndef QLTFSDK_FIFO_FIFO_DISK_FILE_H
#define QLTFSDK_FIFO_FIFO_DISK_FILE_H

#include <string>

#include "platform/platform.h"

class CFifoDiskFile {
 public:
  static constexpr DWORD kMaxSize = 0x400000;  // size limit for adding records

  // Folder "C:\Temp", nothing written, no file open.
  CFifoDiskFile();
  // Closes the file if open and deletes it from disk.
  virtual ~CFifoDiskFile();
  CFifoDiskFile(const CFifoDiskFile&) = delete;
  CFifoDiskFile& operator=(const CFifoDiskFile&) = delete;

  // Folder of the next CreateNewFile (backslashes, no trailing one). Returns 1.
  BOOL SetFolder(const std::wstring& strFolder);
  bool IsOpen() const { return m_hFile != INVALID_HANDLE_VALUE; }
  // Closes any open file and creates a new, empty one under a fresh name,
  // open for writing and not shared. Nonzero when the file is open; 0 when
  // the folder is missing or the file cannot be created (the written size is
  // reset either way).
  BOOL CreateNewFile();
  // Appends one record (creating the file first if none is open). Returns 1
  // when written, 0 when no file could be created or the write failed.
  BOOL WriteRecord(const void* pPayload, LONG nLen);
  // Reads the next piece of the file, opening it for reading first if no
  // file is open. With a null pDst reads a record length into nLen: returns
  // 1 when four length bytes were read, 0 (nLen = 0) at the end of the file,
  // for a length cut short by the end, or on a read failure. With pDst and
  // nLen > 0 reads up to nLen bytes into pDst, sets nLen to the count read
  // and returns 1 (0 on a read failure).
  BOOL ReadRecord(void* pDst, LONG& nLen);
  // True when a payload of nLen bytes may still be added (the limit exceeds
  // the written size plus nLen, summed without wrapping).
  bool HasRoom(LONG nLen) const;
  // Closes the file if open. Returns 1.
  BOOL CloseFile();
  // Closes the file if open and deletes it from disk.
  void CloseAndDelete();

  const std::wstring& GetFileName() const { return m_strFileName; }
  const std::wstring& GetPath() const { return m_strPath; }
  DWORD GetWrittenSize() const { return m_nWrittenSize; }

 private:
  HANDLE m_hFile = INVALID_HANDLE_VALUE;  // open file, or INVALID_HANDLE_VALUE
  std::wstring m_strFileName;             // 32 hex digits, no extension
  DWORD m_nWrittenSize = 0;               // bytes written, length fields included
  DWORD m_nMaxSize = kMaxSize;
  std::wstring m_strFolder = L"C:\\Temp";
  std::wstring m_strPath;  // folder + "\" + name + ".dat"
};

#endif  // QLTFSDK_FIFO_FIFO_DISK_FILE_H
