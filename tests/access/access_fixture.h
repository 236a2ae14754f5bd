// Shared pieces of the file access tests: pattern files and thread counts.
#ifndef QLTFSDK_TESTS_ACCESS_ACCESS_FIXTURE_H
#define QLTFSDK_TESTS_ACCESS_ACCESS_FIXTURE_H

#include <dirent.h>

#include <cstdint>
#include <string>

#include "tests/support/temp_dir.h"

// Byte i of every pattern file: varies within a block and between blocks, so
// a byte delivered from the wrong offset shows.
inline unsigned char PatternByte(uint64_t i) { return static_cast<unsigned char>((i * 131u) ^ (i >> 12) ^ (i >> 20)); }

inline std::string Pattern(uint64_t offset, size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(PatternByte(offset + i));
  return s;
}

inline bool WritePatternFile(const std::string& path, size_t n) { return WriteWholeFile(path, Pattern(0, n)); }

// Threads of this process right now.
inline int ThreadCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') ++n;
    closedir(d);
  }
  return n;
}

#endif  // QLTFSDK_TESTS_ACCESS_ACCESS_FIXTURE_H
