#include "tests/support/temp_dir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "platform/platform.h"

TempDir::TempDir() {
  const char* root = std::getenv("QLTFS_TEST_TMP");  // else TMPDIR, which CTest sets
  std::string base = (root && *root) ? root : std::filesystem::temp_directory_path().string();
  std::filesystem::create_directories(base);
  std::string tmpl = base + "/t-XXXXXX";
  if (!mkdtemp(&tmpl[0])) throw std::runtime_error("cannot create a temporary directory under " + base);
  m_strPath = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(m_strPath, ec);
}

std::wstring TempDir::wpath(const std::string& name) const {
  return QltWindowsPath(name.empty() ? m_strPath : file(name));
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool WriteWholeFile(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << data;
  return static_cast<bool>(out);
}

bool FileExists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}
