// Per-test temporary directories.
#ifndef QLTFSDK_TESTS_SUPPORT_TEMP_DIR_H
#define QLTFSDK_TESTS_SUPPORT_TEMP_DIR_H

#include <string>

#if defined(_WIN32)
#include <cstdlib>
// The environment calls the tests use, on the C runtime that the library's
// getenv reads.
inline int setenv(const char* name, const char* value, int /*overwrite*/) { return _putenv_s(name, value); }
inline int unsetenv(const char* name) { return _putenv_s(name, ""); }
#endif

// A fresh, empty directory that is removed with everything in it when the
// object is destroyed. Created under $QLTFS_TEST_TMP when set, else in the
// temporary area ($TMPDIR, which CTest sets to a folder of the build tree).
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // Native path of the directory, without a trailing slash.
  const std::string& path() const { return m_strPath; }
  // Native path of name inside the directory.
  std::string file(const std::string& name) const { return m_strPath + "/" + name; }
  // Wide path with backslashes, as the library's callers write paths.
  std::wstring wpath(const std::string& name = "") const;

 private:
  std::string m_strPath;
};

// Reads a whole file; empty when it cannot be read.
std::string ReadWholeFile(const std::string& path);
// Writes a whole file, replacing it; false on failure.
bool WriteWholeFile(const std::string& path, const std::string& data);
bool FileExists(const std::string& path);
// n bytes of a fixed pseudo-random sequence: the same seed gives the same
// bytes, so a test can build its data again to compare.
std::string RandomBytes(size_t n, unsigned seed);

#endif  // QLTFSDK_TESTS_SUPPORT_TEMP_DIR_H
