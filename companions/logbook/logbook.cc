// QLT_LogBookU: items gathered per thread, one spdlog line per chain.
#include <spdlog/spdlog.h>

#include <atomic>
#include <cstdio>

#include "companions/logbook/line_builder.h"
#include "companions/logbook/log_store.h"
#include "companions/logbook/logbook_api.h"
#include "platform/platform.h"

using qlt::logbook::CPendingLines;

namespace {

// Serial numbers of log objects. Relaxed: only uniqueness matters.
std::atomic<uint64_t> g_nNextSerial{1};

const char kDefaultName[] = "QltLogBook";

bool IsValidName(const std::string& strName) {
  if (strName.empty() || strName == "." || strName == "..") return false;
  return strName.find_first_of("/\\") == std::string::npos;
}

std::string Text(const CComBSTR& text) {
  return text.m_str ? QltWideToUtf8(std::wstring(text.m_str, text.Length())) : "";
}

// Runs fn; whatever it throws (out of memory, the logging library) is
// dropped, and the caller's last error is left as it was: logging reports
// no failure.
template <class Fn>
void Quietly(Fn&& fn) noexcept {
  try {
    fn();
  } catch (...) {
  }
}

std::string Number(double value) {
  char szText[64];
  std::snprintf(szText, sizeof(szText), "%.3f", value);
  return szText;
}

}  // namespace

struct QLT_LogBookU::Impl {
  const uint64_t m_nSerial = g_nNextSerial.fetch_add(1, std::memory_order_relaxed);
  // Taken before the shared log store's lock (Logger opens the log with it held).
  mutable CRITICAL_SECTION m_cs;
  std::string m_strName GUARDED_BY(m_cs) = kDefaultName;
  std::string m_strPath GUARDED_BY(m_cs);                      // the opened file, "" before
  std::shared_ptr<spdlog::logger> m_pLogger GUARDED_BY(m_cs);  // null until the first line ends

  Impl() { InitializeCriticalSection(&m_cs); }
  ~Impl() { DeleteCriticalSection(&m_cs); }

  // The logger for the next line, opened on first use; null when the file
  // cannot be opened (the next line tries again).
  std::shared_ptr<spdlog::logger> Logger() {
    CAutoLock lock(&m_cs);
    if (!m_pLogger) {
      std::string strPath = qlt::logbook::LogFilePathFor(m_strName);
      m_pLogger = qlt::logbook::OpenSharedLog(m_strName, strPath);
      if (m_pLogger) m_strPath = strPath;
    }
    return m_pLogger;
  }
};

// Logging never throws: every operation below runs Quietly, and what fails
// for want of memory (or in the logging library) is dropped. An object
// built without memory for its state writes nothing.
QLT_LogBookU::QLT_LogBookU() : m_pImpl(nullptr) {
  Quietly([this] { m_pImpl = new Impl(); });
}

QLT_LogBookU::~QLT_LogBookU() {
  if (!m_pImpl) return;
  Quietly([this] { CPendingLines::Take(m_pImpl->m_nSerial); });
  Flush();
  delete m_pImpl;
}

int QLT_LogBookU::ConfigName(CComBSTR strName) {
  if (!m_pImpl) return 0;
  int nResult = 0;
  Quietly([&] {
    std::string strText = Text(strName);
    if (!IsValidName(strText)) return;
    CAutoLock lock(&m_pImpl->m_cs);
    if (strText != m_pImpl->m_strName) {
      m_pImpl->m_strName = strText;
      m_pImpl->m_pLogger.reset();
      m_pImpl->m_strPath.clear();
    }
    nResult = 1;
  });
  return nResult;
}

// Callers contain: the item is made and joined inside one contained call.
void QLT_LogBookU::Append(const std::string& item) {
  if (m_pImpl) qlt::logbook::JoinItem(CPendingLines::LineOf(m_pImpl->m_nSerial), item);
}

void QLT_LogBookU::EndLine() {
  if (!m_pImpl) return;
  Quietly([this] {
    std::string strLine = CPendingLines::Take(m_pImpl->m_nSerial);
    std::shared_ptr<spdlog::logger> pLogger = m_pImpl->Logger();
    if (!pLogger) return;
    // The string_view form writes the text as it stands (no format fields).
    pLogger->log(spdlog::source_loc{}, spdlog::level::info, spdlog::string_view_t(strLine));
  });
}

void QLT_LogBookU::Flush() {
  if (!m_pImpl) return;
  Quietly([this] {
    std::shared_ptr<spdlog::logger> pLogger;
    {
      CAutoLock lock(&m_pImpl->m_cs);
      pLogger = m_pImpl->m_pLogger;
    }
    if (pLogger) pLogger->flush();
  });
}

std::string QLT_LogBookU::FilePath() const {
  if (!m_pImpl) return std::string();
  std::string strPath;
  Quietly([&] {
    CAutoLock lock(&m_pImpl->m_cs);
    strPath = m_pImpl->m_pLogger ? m_pImpl->m_strPath : qlt::logbook::LogFilePathFor(m_pImpl->m_strName);
  });
  return strPath;
}

int QLT_LogBookU::SetRotation(size_t nMaxBytes, size_t nMaxFiles) {
  if (nMaxBytes == 0 || nMaxFiles == 0) return 0;
  int nResult = 0;
  Quietly([&] {
    qlt::logbook::SetRotation(nMaxBytes, nMaxFiles);
    nResult = 1;
  });
  return nResult;
}

QLT_LogBookU& QLT_LogBookU::operator-(const CComBSTR& text) {
  Quietly([&] { Append(Text(text)); });
  return *this;
}
QLT_LogBookU& QLT_LogBookU::operator-(unsigned long value) {
  Quietly([&] { Append(std::to_string(value)); });
  return *this;
}
QLT_LogBookU& QLT_LogBookU::operator-(__int64 value) {
  Quietly([&] { Append(std::to_string(value)); });
  return *this;
}
QLT_LogBookU& QLT_LogBookU::operator-(double value) {
  Quietly([&] { Append(Number(value)); });
  return *this;
}
QLT_LogBookU& QLT_LogBookU::operator-(unsigned int value) {
  Quietly([&] { Append(std::to_string(value)); });
  return *this;
}
QLT_LogBookU& QLT_LogBookU::operator-(int value) {
  Quietly([&] { Append(std::to_string(value)); });
  return *this;
}
QLT_LogBookU& QLT_LogBookU::operator-(QLT_LOGBOOK_MANIP manip) { return manip ? manip(*this, 0) : *this; }

QLT_LogBookU& QLT_LogBookU::operator<<(const CComBSTR& text) { return *this - text; }
QLT_LogBookU& QLT_LogBookU::operator<<(unsigned long value) { return *this - value; }
QLT_LogBookU& QLT_LogBookU::operator<<(unsigned int value) { return *this - value; }
QLT_LogBookU& QLT_LogBookU::operator<<(int value) { return *this - value; }
QLT_LogBookU& QLT_LogBookU::operator<<(__int64 value) { return *this - value; }
QLT_LogBookU& QLT_LogBookU::operator<<(double value) { return *this - value; }
QLT_LogBookU& QLT_LogBookU::operator<<(QLT_LOGBOOK_MANIP manip) { return *this - manip; }

QLT_LogBookU& endl(QLT_LogBookU& log, unsigned long /*reserved*/) {
  log.EndLine();
  return log;
}
