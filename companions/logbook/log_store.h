// Where named logs live, and the one spdlog logger per log file that every
// QLT_LogBookU of that file shares.
#ifndef QLTFSDK_COMPANIONS_LOGBOOK_LOG_STORE_H
#define QLTFSDK_COMPANIONS_LOGBOOK_LOG_STORE_H

#include <cstddef>
#include <memory>
#include <string>

namespace spdlog {
class logger;
}

namespace qlt::logbook {

// Native path of the file that holds the log called strName:
// "<root>/<name>/<name>.log", where root is $QLTFS_LOG_ROOT when set and
// non-empty, else the "sdk-log" folder beside this library's own file.
std::string LogFilePathFor(const std::string& strName);

// The logger writing to strPath, shared by every caller that asks for the
// same path while one of them still holds it. Opens the file (making its
// folders) on first use; null when it cannot be opened. After a failure
// (other than running out of memory) the path is not tried again for 30
// seconds: calls meanwhile return null at once. Thread-safe.
std::shared_ptr<spdlog::logger> OpenSharedLog(const std::string& strName, const std::string& strPath);

// Rotation for files opened from now on. Thread-safe.
void SetRotation(size_t nMaxBytes, size_t nMaxFiles);

}  // namespace qlt::logbook

#endif  // QLTFSDK_COMPANIONS_LOGBOOK_LOG_STORE_H
