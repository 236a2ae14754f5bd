// The few facts the plug-in reads from S3 XML answers: the text of the first
// element of a name (UploadId of an initiate answer, Code and Message of an
// error), and whether an answer is an error document. Not a general XML
// parser: the answers are small, flat and come from the store we talk to.
//
// Pure functions; any thread.
#ifndef QLTFSDK_COMPANIONS_WEBFILE_S3_XML_H
#define QLTFSDK_COMPANIONS_WEBFILE_S3_XML_H

#include <string>

namespace qltweb {

// Text of the first element named tag (with or without attributes or a
// namespace prefix), its five predefined entities and numeric character
// references below 128 decoded. Empty when absent or unterminated.
std::string XmlElementText(const std::string& xml, const char* tag);

// True when the document's root element is <Error> (a complete-upload answer
// can carry one under status 200).
bool XmlIsError(const std::string& xml);

// Escapes &, <, > and " for element text.
std::string XmlEscape(const std::string& text);

}  // namespace qltweb

#endif  // QLTFSDK_COMPANIONS_WEBFILE_S3_XML_H
