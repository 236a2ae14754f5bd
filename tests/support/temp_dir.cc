#include "tests/support/temp_dir.h"

#if !defined(_WIN32)
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

#include "platform/platform.h"

#if defined(_WIN32)
// Native paths are UTF-8 on every system; on Windows the standard library
// reads narrow paths in the ANSI code page, so they go through u8path.
namespace {
std::filesystem::path Native(const std::string& p) { return std::filesystem::u8path(p); }
}  // namespace

TempDir::TempDir() {
  // TMPDIR names a build-machine folder that a Windows program cannot use.
  const char* root = std::getenv("QLTFS_TEST_TMP");
  std::filesystem::path base = (root && *root) ? Native(root) : std::filesystem::temp_directory_path();
  std::filesystem::create_directories(base);
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::filesystem::path dir = base / ("t-" + std::to_string(GetCurrentProcessId()) + "-" +
                                        std::to_string(GetTickCount64()) + "-" + std::to_string(attempt));
    std::error_code ec;
    if (std::filesystem::create_directory(dir, ec)) {
      std::string u8 = dir.u8string();
      for (char& c : u8)
        if (c == '\\') c = '/';
      m_strPath = u8;
      return;
    }
  }
  throw std::runtime_error("cannot create a temporary directory");
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(Native(m_strPath), ec);
}

std::wstring TempDir::wpath(const std::string& name) const {
  return QltWindowsPath(name.empty() ? m_strPath : file(name));
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(Native(path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool WriteWholeFile(const std::string& path, const std::string& data) {
  std::ofstream out(Native(path), std::ios::binary | std::ios::trunc);
  out << data;
  return static_cast<bool>(out);
}

bool FileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(Native(path), ec);
}
#else
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
#endif

std::string RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen());
  return s;
}
