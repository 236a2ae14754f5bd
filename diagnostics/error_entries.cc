#include "diagnostics/error_entries.h"

#include "diagnostics/error_log.h"

namespace {

// "<first><a><second><b>: \n", the shape of the count and position details.
std::wstring PairDetail(const wchar_t* first, int64_t a, const wchar_t* second, int64_t b) {
  return std::wstring(first) + std::to_wstring(a) + second + std::to_wstring(b) + L": \n";
}
std::wstring WriteDetail(int64_t nToWrite, int64_t nWritten) {
  return PairDetail(L"To write bytes :", nToWrite, L"   written bytes ", nWritten);
}
std::wstring ReadDetail(int64_t nToRead, int64_t nRead) {
  return PairDetail(L"To read bytes :", nToRead, L"   readed bytes ", nRead);
}
std::wstring MoveDetail(int64_t nDistance, int64_t nNewPos) {
  return PairDetail(L"Mov pos :", nDistance, L"   new pos ", nNewPos);
}

}  // namespace

CErrorLogEntry WriteFailedEntry(int64_t nToWrite, int64_t nWritten) {
  return {"\n    write file  :   ", WriteDetail(nToWrite, nWritten)};
}
CErrorLogEntry ReadFailedEntry(int64_t nToRead, int64_t nRead) {
  return {"\n    read file  :   ", ReadDetail(nToRead, nRead)};
}
CErrorLogEntry SeekFailedEntry(int64_t nDistance, int64_t nNewPos) {
  return {"\n    seek file pos :   ", MoveDetail(nDistance, nNewPos)};
}
CErrorLogEntry SeekBeforeReadFailedEntry(int64_t nDistance, int64_t nNewPos) {
  return {"\n    seek file pos when read:   ", MoveDetail(nDistance, nNewPos)};
}
CErrorLogEntry RetrySeekFailedEntry(int64_t nDistance, int64_t nNewPos) {
  return {"\n    seek file pos when writeretry:   ", MoveDetail(nDistance, nNewPos)};
}

CErrorLogEntry SeekExceptionEntry(int64_t nDistance, int64_t nNewPos) {
  return {"\n    seek file pos exception :   ", MoveDetail(nDistance, nNewPos)};
}
CErrorLogEntry ReadExceptionEntry(int64_t nToRead, int64_t nRead) {
  return {"\n    read file exception  :   ", ReadDetail(nToRead, nRead)};
}

CErrorLogEntry AccessSeekExceptionEntry(int64_t nPos, int64_t nNewPos) {
  return {"\n  seek file pos Exception :   ", MoveDetail(nPos, nNewPos)};
}
CErrorLogEntry AccessReadExceptionEntry(int64_t nToRead, int64_t nRead) {
  return {"\n    read file  exception :   ", ReadDetail(nToRead, nRead)};
}
CErrorLogEntry AccessWriteExceptionEntry(int64_t nToWrite, int64_t nWritten) {
  return {"\n    write file exception   :   ", WriteDetail(nToWrite, nWritten)};
}

CErrorLogEntry VirtualOpenFailedEntry() { return {"\n    open file fail!   ", std::wstring()}; }
CErrorLogEntry VirtualSizeEntry(int64_t nSize) {
  return {"\n    Get file size:   ", L"size :" + std::to_wstring(nSize) + L"   \n"};
}
CErrorLogEntry VirtualShortReadEntry(int64_t nToRead, int64_t nRead) {
  return {"\n    read file :   ",
          L"size to read  :" + std::to_wstring(nToRead) + L"  real size  :" + std::to_wstring(nRead) + L"  \n"};
}
CErrorLogEntry VirtualSeekMissedEntry(int64_t nPos, int64_t nNewPos) {
  return {"\n   mov file postion :   ",
          L"position to mov  :" + std::to_wstring(nPos) + L" new  position :" + std::to_wstring(nNewPos) + L"  \n"};
}

void WriteErrorLogEntry(CLogFileWriter2& log, const std::wstring& filePath, const CErrorLogEntry& entry) {
  WriteErrorLogEntry(log, filePath, entry.pszTitle, entry.strDetail.empty() ? nullptr : entry.strDetail.c_str());
}
