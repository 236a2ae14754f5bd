#include "sizes.h"

#include "errors.h"

bool ParseSize(const std::string& strText, ULONGLONG* pBytes) {
  std::string strDigits = strText;
  if (!strDigits.empty() && strDigits.back() == 'B') strDigits.pop_back();
  if (!strDigits.empty() && strDigits.back() == 'i') strDigits.pop_back();
  int nShift = 0;
  if (!strDigits.empty()) {
    switch (strDigits.back()) {
      case 'k':
      case 'K': nShift = 10; break;
      case 'm':
      case 'M': nShift = 20; break;
      case 'g':
      case 'G': nShift = 30; break;
      default: break;
    }
  }
  if (nShift) strDigits.pop_back();
  if (strDigits.empty() || strDigits.size() > 19 || strDigits.find_first_not_of("0123456789") != std::string::npos)
    return false;
  ULONGLONG nValue = std::stoull(strDigits);  // at most 19 digits: fits
  if (nValue > (~0ULL >> nShift)) return false;
  *pBytes = nValue << nShift;
  return true;
}

ULONGLONG SizeOption(const std::string& strCommand, const std::string& strName, const std::string& strText,
                     ULONGLONG nMin, ULONGLONG nMax) {
  ULONGLONG n = 0;
  if (!ParseSize(strText, &n) || n < nMin || n > nMax)
    Fail(strCommand,
         "bad " + strName + " '" + strText + "': give bytes with an optional K, M or G suffix (" +
             std::to_string(nMin) + " to " + std::to_string(nMax) + ")",
         2);
  return n;
}
