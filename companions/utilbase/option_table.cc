#include "companions/utilbase/option_table.h"

#include <cwctype>

namespace qlt::utilbase {

namespace {

// Made when the library loads and destroyed when it unloads, so it outlives
// every caller in the libraries and executables that depend on it.
COptionTable g_table;

}  // namespace

COptionTable& COptionTable::Instance() { return g_table; }

std::wstring COptionTable::Key(const wchar_t* pszName) {
  std::wstring key(pszName);
  for (wchar_t& c : key) c = (c == L'/') ? L'\\' : static_cast<wchar_t>(towlower(static_cast<wint_t>(c)));
  return key;
}

bool COptionTable::Find(const wchar_t* pszName, WriterOptions* pOut) {
  std::wstring key = Key(pszName);
  CAutoLock lock(&m_cs);
  auto it = m_mapOptions.find(key);
  if (it == m_mapOptions.end()) return false;
  *pOut = it->second;
  return true;
}

void COptionTable::SetBlockSize(const wchar_t* pszName, int nBytes) {
  std::wstring key = Key(pszName);
  CAutoLock lock(&m_cs);
  m_mapOptions[key].nBlockSize = nBytes;
}

void COptionTable::SetPresetSize(const wchar_t* pszName, uint64_t nBytes) {
  std::wstring key = Key(pszName);
  CAutoLock lock(&m_cs);
  if (nBytes > 0) {
    m_mapOptions[key].nPresetSize = nBytes;
    return;
  }
  auto it = m_mapOptions.find(key);
  if (it == m_mapOptions.end()) return;
  it->second.nPresetSize = 0;
  if (it->second.nBlockSize == 0) m_mapOptions.erase(it);
}

bool COptionTable::Erase(const wchar_t* pszName) {
  std::wstring key = Key(pszName);
  CAutoLock lock(&m_cs);
  return m_mapOptions.erase(key) > 0;
}

}  // namespace qlt::utilbase
