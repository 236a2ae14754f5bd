// The SDK's process-wide settings, read once from qltfsdk.ini at load, and
// the default drive of the write cache.
#ifndef QLTFSDK_DIAGNOSTICS_SDK_SETTINGS_H
#define QLTFSDK_DIAGNOSTICS_SDK_SETTINGS_H

#include <string>

#include "diagnostics/relaxed_int.h"
#include "platform/platform.h"

// The nine settings, named after their keys in qltfsdk.ini. Each field holds
// its built-in value until start-up loads the file; afterwards it is read
// directly, without a lock, by every subsystem.
//
// Threading: start-up fills the record on the loading thread before any other
// thread can call in. Two fields are stored again later from any thread (the
// writer sets WriteMode back to 0 when it is constructed; the local back-end
// may replace ReadBufSize), while other threads read them. Every field is
// therefore a relaxed atomic (CRelaxedInt): each is an independent value read
// afresh at each use, so whole-value atomicity is all that is needed and no
// ordering with other data is implied.
// Built-in block sizes, used until the file names others and wherever a
// stored size is unusable.
constexpr int kDefaultReadBufSize = 262144;
constexpr int kDefaultWriteBufSize = 524288;

struct SdkSettingsRecord {
  CRelaxedInt ReadBufSize{kDefaultReadBufSize};    // bytes; the local back-end's read block
  CRelaxedInt WriteBufSize{kDefaultWriteBufSize};  // bytes; each writer's block and staging size
  CRelaxedInt ReadMode{1};                         // 1: read without system buffering
  CRelaxedInt WriteMode{0};                        // 0: buffered write path, 1: no-buffering path
  CRelaxedInt WriteRetryCount{0};                  // reopen attempts after a failed block write
  CRelaxedInt WriteRetryTime{0};                   // milliseconds to wait after a failed reopen
  CRelaxedInt LogFileOn{0};                        // non-zero: write error-log entries
  CRelaxedInt IOWriteTimeOn{0};                    // non-zero: time every block write
  CRelaxedInt IOWriteBlockTimeTh{100};             // milliseconds; slower writes are logged
};

extern SdkSettingsRecord SdkSettings;

// Root ("X:\") of the fixed drive that holds write-cache folders when the
// registry names no drive for a file; empty when there is none. A fixed
// array, so it is ready before any load-time code runs.
// Threading: written by start-up on the loading thread before other threads
// call in (and by tests, single-threaded); read-only afterwards.
extern wchar_t CacheDriveRoot[4];

// Stores root (at most its first three characters) in CacheDriveRoot.
void SetCacheDriveRoot(const std::wstring& root);

// Reads the nine keys from iniPath into SdkSettings, in the order of the
// record: "FILERW" holds the first six, "LOG" the last three. Sizes are in
// KiB in the file and stored in bytes: a value of 1 or more is multiplied by
// 1,024; a value below 1, or one whose byte count does not fit in 32 bits,
// gives the built-in size. ReadMode and WriteMode store 1 for any non-zero
// value. Missing keys, a missing or unreadable file and text that is not a
// number give the defaults. Returns 1. Any thread; not concurrently with
// itself.
int LoadSdkSettingsFrom(const std::wstring& iniPath);

// LoadSdkSettingsFrom on qltfsdk.ini in GetConfigDirectory(). Returns 1.
int LoadSdkSettings();

// Path of qltfsdk.ini in GetConfigDirectory() (whether or not it exists);
// empty when no directory is known (the defaults then apply).
std::wstring GetSettingsFilePath();

// Chooses the cache drive: the second fixed drive of the platform's drive
// list, else the only fixed one, else empty. Stores "X:\" or empty in root.
// Returns 1.
int SelectCacheDrive(std::wstring& root);

#endif  // QLTFSDK_DIAGNOSTICS_SDK_SETTINGS_H
