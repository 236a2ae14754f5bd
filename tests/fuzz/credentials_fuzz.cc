// Fuzz target: the shared credentials file.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "companions/webfile/web_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  std::string access, secret, token;
  if (qltweb::ParseCredentialsText(text, "default", access, secret, token)) {
    if (access.empty() || secret.empty()) std::abort();
    if (access.size() > size || secret.size() > size || token.size() > size) std::abort();
  }
  return 0;
}
