// CFtpSession: one FTP login and, at a time, one binary transfer of one
// remote file (a download that can restart at an offset, or an upload), over
// libcurl's multi interface driven on the calling thread.
//
// The session keeps the server, user and password of its login; libcurl keeps
// the control connection open between transfers and makes a new one (logging
// in again) when a transfer had to drop it, for example after a restart at a
// new offset. Every wait is bounded: connecting by the connect time-out, any
// other step by the idle time-out (no byte moved and no answer for that long),
// and Abort ends a wait at once. A failed transfer leaves the session logged
// in, so the caller may open or seek again.
//
// Thread rule: one thread at a time calls every operation except Abort, which
// any thread may call while the session exists (it is how CloseFile ends a
// read-ahead worker blocked inside Read or Write).
#ifndef QLTFSDK_ACCESS_FTP_SESSION_H
#define QLTFSDK_ACCESS_FTP_SESSION_H

#include <curl/curl.h>

#include <atomic>
#include <string>
#include <vector>

#include "qltfsdk/wintypes.h"

// Errors reported through SetLastError by failing FTP calls (the values of the
// platform's internet client, so hosts can tell them apart).
enum : DWORD {
  QLT_ERROR_FTP_TIMEOUT = 12002,            // no answer or no data within the time-out
  QLT_ERROR_FTP_EXTENDED = 12003,           // the server refused the command
  QLT_ERROR_FTP_LOGIN_FAILURE = 12015,      // user name or password refused
  QLT_ERROR_FTP_CANNOT_CONNECT = 12029,     // nothing listens, or the greeting was refused
  QLT_ERROR_FTP_CONNECTION_ABORTED = 12030  // the connection dropped, or the transfer was aborted
};

// Connection settings of a session.
struct FtpOptions {
  DWORD nConnectTimeoutMs = 10000;  // TCP connect and login
  DWORD nIdleTimeoutMs = 30000;     // longest wait without progress in any later step
  bool bPassive = false;            // passive data connections (active by default)
};

// The settings every new session starts with: the built-in values above,
// replaced by the keys "Passive", "ConnectTimeoutMs" and "IdleTimeoutMs" of
// the section "FTP" of qltfsdk.ini (read once, at the first call), and then by
// the environment variables QLTFS_FTP_PASSIVE, QLTFS_FTP_CONNECT_TIMEOUT_MS
// and QLTFS_FTP_IDLE_TIMEOUT_MS when they hold a number. Any thread.
FtpOptions FtpDefaultOptions();

// Calls curl_global_init once per process (thread-safe). Returns whether
// libcurl is usable.
bool FtpGlobalInit();

class CFtpSession {
 public:
  CFtpSession();
  ~CFtpSession();  // ends any transfer and closes the connections
  CFtpSession(const CFtpSession&) = delete;
  CFtpSession& operator=(const CFtpSession&) = delete;

  // Applies from the next LogIn.
  void SetOptions(const FtpOptions& options) { m_options = options; }
  const FtpOptions& GetOptions() const { return m_options; }

  // Ends any previous login, connects to host:port (port 0 means 21) and logs
  // in. host may end in ";passive" or ";active" to choose the data connection
  // mode for this login. Returns TRUE when logged in; FALSE with the last
  // error set otherwise (the session is then logged out).
  BOOL LogIn(const std::wstring& host, const std::wstring& user, const std::wstring& password, int port);
  // Ends any transfer and closes the connections. Never fails.
  void LogOut();
  bool IsLoggedIn() const { return m_pMulti != nullptr; }

  // Starts downloading path (relative to the login directory; a leading '/'
  // makes it absolute) and waits until its first data, its end or its
  // failure. Returns FALSE (last error set) when the file is missing or the
  // server refuses; on success *pSize holds the size the server reported
  // (0 when it reported none).
  BOOL OpenRead(const std::wstring& path, ULONGLONG* pSize);
  // Delivers count bytes into dst (dst null: discards them), waiting as long
  // as data keeps arriving: fewer than count only at the end of the file.
  // Returns the bytes delivered, or -1 (last error set) when the transfer
  // failed before count bytes came; the position then stays where it was.
  LONG Read(void* dst, LONG count);
  // Delivers up to count bytes into dst (not null) as soon as any are there:
  // what is buffered, or else what the next receive brings. Returns the
  // bytes delivered (0 only at the end of the file), or -1 (last error set)
  // when the transfer failed before any byte of this call came; bytes that
  // came before a failure are delivered, and the failure shows at the next
  // call.
  LONG ReadSome(void* dst, LONG count);
  // Moves the read position to pos: a short step forward reads and discards,
  // anything else restarts the download at pos. Positions at or past the end
  // read nothing. FALSE when no download is open.
  BOOL Seek(ULONGLONG pos);

  // Starts uploading to path, creating its missing directories, and waits
  // until the server accepted the upload. FALSE (last error set) when it
  // refused or did not answer.
  BOOL OpenWrite(const std::wstring& path);
  // Hands count bytes to the upload and waits until libcurl took all of them.
  // FALSE (last error set) when the upload failed or stalled.
  BOOL Write(const void* src, LONG count);

  // Ends the open transfer: a download is abandoned, an upload is completed
  // and its result awaited. Returns FALSE (last error set) only when an
  // upload did not complete. No transfer open: TRUE.
  BOOL Close();

  // Makes a Read, Write, OpenRead, OpenWrite or Close in progress on another
  // thread fail promptly, and every later transfer call fail until the next
  // LogIn, OpenRead or OpenWrite. Any thread.
  void Abort();

  // Bytes read or written on the open file, counting from its start.
  ULONGLONG Position() const { return m_nPos; }

 private:
  enum class Mode { kNone, kRead, kWrite };
  template <class Pred>
  void Drive(Pred satisfied);
  bool Start(const std::string& url, Mode mode, ULONGLONG offset, bool bNoBody);
  void Finish(CURLcode result);
  void StopTransfer();
  // Common start of OpenRead and OpenWrite: ends any transfer, refuses a
  // missing session (12029) or a directory path (ERROR_INVALID_NAME), and
  // sets m_strFileUrl. False with the last error set.
  bool PrepareOpen(const std::wstring& path);
  void FailWith(CURLcode result);
  std::string FileUrl(const std::wstring& path) const;

  static size_t OnData(char* data, size_t size, size_t n, void* self);
  static size_t OnSend(char* buf, size_t size, size_t n, void* self);

  // Every field below belongs to the one calling thread, except m_bAbort.
  FtpOptions m_options = FtpDefaultOptions();
  FtpOptions m_login;  // the options of the current login, host suffix applied
  CURLM* m_pMulti = nullptr;
  CURL* m_pEasy = nullptr;
  bool m_bAdded = false;  // m_pEasy is in m_pMulti (a transfer runs)
  bool m_bDone = true;    // the current transfer ended (m_eResult says how)
  CURLcode m_eResult = CURLE_OK;
  bool m_bPaused = false;    // a callback paused the transfer
  std::string m_strBaseUrl;  // "ftp://host:port/"
  std::string m_strUser, m_strPassword;
  std::string m_strFileUrl;
  Mode m_eMode = Mode::kNone;
  ULONGLONG m_nPos = 0;    // position of the host's next byte
  ULONGLONG m_nSize = 0;   // size reported at OpenRead
  ULONGLONG m_nMoved = 0;  // bytes through either callback: the idle watchdog's progress mark

  // Download: bytes the server sent beyond what the current Read asked for
  // (up to a few MiB before the transfer pauses). Invariant: unread spill
  // bytes are m_spill[m_nSpillPos, size()), and they come before anything
  // libcurl still holds.
  std::vector<char> m_spill;
  size_t m_nSpillPos = 0;
  char* m_pDst = nullptr;  // current Read's destination (null: discard)
  size_t m_nNeed = 0;      // bytes the current Read still waits for

  // Upload: the current Write's bytes not yet taken by libcurl.
  const char* m_pSrc = nullptr;
  size_t m_nSrcLeft = 0;
  bool m_bEof = false;        // Close asked to finish the upload
  bool m_bSendAsked = false;  // libcurl asked for upload data: the server accepted

  // Set by Abort from any thread, read by Drive between waits; cleared by
  // LogIn and the opens. Relaxed order is enough: it carries no data, and the
  // wake-up is delivered by curl_multi_wakeup.
  std::atomic<bool> m_bAbort{false};
};

#endif  // QLTFSDK_ACCESS_FTP_SESSION_H
