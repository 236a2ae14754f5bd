// KxFileAccessFtp: the file access back-end for files on an FTP server.
//
// A host connects with LogInHost, then opens one remote file at a time in
// binary mode for reading (mode 1) or writing (mode 2). One login serves one
// file: CloseFile disconnects, so the host logs in again before the next
// OpenFile. Writing a path creates its missing directories first. Data
// connections are active by default; a host chooses passive mode by writing
// the host as "name;passive", or for every login with Passive=1 in the
// section [FTP] of qltfsdk.ini (see FtpDefaultOptions).
//
// Every network wait is bounded (connect and idle time-outs, FtpOptions): a
// server that refuses, stalls, drops the data connection or disappears makes
// the call fail, and the object stays usable for a new LogInHost.
//
// Positions: SetPosition takes the low 32 bits of the request as a signed
// value, so positions from 2 GiB on cannot be reached, and it and a skipping
// Read (null buffer) report the low 32 bits of the new position. GetLength
// and GetPosition are 64-bit.
//
// Thread rule: one caller thread at a time. In asynchronous mode one worker
// thread reads ahead or writes behind through a ring (KxAsyncFileAccess);
// CloseFile ends it
// (aborting a remote read it is blocked in) and joins it.
#ifndef QLTFSDK_ACCESS_KX_FILE_ACCESS_FTP_H
#define QLTFSDK_ACCESS_KX_FILE_ACCESS_FTP_H

#include <atomic>
#include <string>

#include "access/ftp_session.h"
#include "access/kx_async_file_access.h"

class KxFileAccessFtp : public KxAsyncFileAccess {
 public:
  // Most bytes per read-ahead step; a step hands over what each receive
  // brought and does not wait for the whole chunk. With 40 KiB steps every
  // step was a thread hand-over, and read-ahead ran at about two thirds of a
  // plain download.
  static constexpr int kReadAheadChunk = 1048576;

  KxFileAccessFtp();
  // Closes any open file (waiting for its worker) and disconnects.
  ~KxFileAccessFtp() override;

  // Closes any open file, then connects and logs in. 1 when logged in, else
  // 0 (last error set; the object is then disconnected).
  int LogInHost(CComBSTR strHost, CComBSTR strUser, CComBSTR strPassword, int nPort) override;
  // Closes any open file (which disconnects), so it needs a LogInHost before
  // it. One leading '/' or '\' is removed from the path. Mode 1 opens an
  // existing file and records its length; mode 2 creates the missing
  // directories and starts the upload, failing when the server refuses it;
  // other modes open nothing and return 1. 0 when not connected or the
  // server refuses.
  int OpenFile(CComBSTR strPath, DWORD nMode) override;
  // The asynchronous scheme of KxAsyncFileAccess::AsyncEnable; 0 (nothing
  // changed) for a capacity below kMinAsyncBufferSize or a file open in the
  // other direction. Returns promptly whatever the server does: a
  // read-ahead blocked in a remote read is aborted, and reading resumes
  // from the next byte not yet delivered.
  int EnableAsyncWrite(int bEnable, int nBufferSize) override;
  int EnableAsyncRead(int bEnable, int nBufferSize) override;
  // The mode and 1 with a file open; 0xFFFFFFFF and 0 without.
  int GetAccessMode(DWORD& nMode) override;
  // Not supported: 0.
  int SetReadBufferSize(DWORD nSize) override { return 0; }
  // Bytes delivered: the full count unless the file ends; 0 on failure. A
  // null buffer skips nCount bytes and returns the low 32 bits of the new
  // position (in asynchronous mode: the bytes skipped).
  int Read(BYTE* pBuffer, int nCount) override;
  __int64 GetPosition() override;
  // Seeks to the low 32 bits of nPos taken as a signed value; returns the low
  // 32 bits of the new position, 0 when the seek fails (a negative request
  // or low half: ERROR_NEGATIVE_SEEK; not open for reading, server failure). In read-ahead mode the worker is stopped,
  // its buffered bytes dropped, and it starts again at the new position.
  int SetPosition(__int64 nPos) override;
  // nCount on success; 0 on failure, after which the object is disconnected
  // (the file stays open until CloseFile). With write-behind, a failure shows
  // at the first Write after the worker met it.
  int Write(const BYTE* pBuffer, int nCount) override;
  // 0 with no file. Otherwise ends the worker (aborting a remote read it is
  // blocked in), completes an upload (its outcome is left in the last error:
  // ERROR_SUCCESS when the server took the whole file), closes the file,
  // disconnects and returns 1.
  int CloseFile() override;

  // Connection settings for the next LogInHost (tests shorten the time-outs).
  void SetOptions(const FtpOptions& options) { m_session.SetOptions(options); }

 protected:
  int WorkerRead(BYTE* pBuffer, int nCount) override;
  int WorkerWrite(const BYTE* pBuffer, int nCount) override;
  void ResumeAt(__int64 nFilePos) override;
  __int64 CurrentReadPosition() override { return static_cast<__int64>(m_session.Position()); }
  void InterruptWorker() override;

 private:
  int DirectRead(BYTE* pBuffer, int nCount);
  int DirectWrite(const BYTE* pBuffer, int nCount);
  void Disconnect();
  void StopWorker();

  // The session: the caller thread's, except that while a worker runs the
  // worker transfers through it and the caller only calls its Abort.
  CFtpSession m_session;
  // Caller thread only.
  bool m_bConnected = false;  // logged in
  bool m_bFileOpen = false;   // a remote file is open
  std::wstring m_strAgent = L"QlFtpClient";
  std::wstring m_strHost, m_strUser;
  int m_nPort = 0;
  CComBSTR m_bstrPath;  // last path opened, without its leading separator
  // An upload write failed, so the upload cannot complete. Set by whichever
  // thread writes (the caller, or the write-behind worker), read by both;
  // relaxed is enough: it carries no data, and CloseFile reads it after the
  // worker is joined.
  std::atomic<bool> m_bUploadFailed{false};
};

#endif  // QLTFSDK_ACCESS_KX_FILE_ACCESS_FTP_H
