// Fuzz target: the S3 XML answers the plug-in reads (multipart initiate and
// complete, error documents).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "companions/webfile/s3_xml.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string xml(reinterpret_cast<const char*>(data), size);
  for (const char* tag : {"UploadId", "Code", "Message", "ETag", "Key"}) {
    std::string text = qltweb::XmlElementText(xml, tag);
    if (text.size() > xml.size()) std::abort();  // decoding only shrinks
  }
  qltweb::XmlIsError(xml);
  std::string escaped = qltweb::XmlEscape(xml);
  if (qltweb::XmlElementText("<ETag>" + escaped + "</ETag>", "ETag") != xml && xml.find('<') == std::string::npos &&
      xml.find('&') == std::string::npos)
    std::abort();  // text without markup survives an escape and a read
  return 0;
}
