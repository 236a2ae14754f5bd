#include "companions/webfile/s3_xml.h"

#include <cstring>

namespace qltweb {
namespace {

// Position just after the name of an opening tag "<tag" or "<x:tag" whose
// next character ends the name; npos when there is none from pos on.
size_t FindOpen(const std::string& xml, const std::string& tag, size_t pos, size_t& nameStart) {
  while ((pos = xml.find('<', pos)) != std::string::npos) {
    size_t p = pos + 1;
    size_t end = p;
    while (end < xml.size() && xml[end] != '>' && xml[end] != ' ' && xml[end] != '/' && xml[end] != '\t' &&
           xml[end] != '\r' && xml[end] != '\n')
      ++end;
    std::string name = xml.substr(p, end - p);
    size_t colon = name.find(':');
    if (colon != std::string::npos && name[0] != '/' && name[0] != '?' && name[0] != '!') name = name.substr(colon + 1);
    if (name == tag) {
      nameStart = p;
      return end;
    }
    pos = p;
  }
  return std::string::npos;
}

std::string Unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '&') {
      out += text[i];
      continue;
    }
    size_t semi = text.find(';', i);
    if (semi == std::string::npos || semi - i > 8) {
      out += text[i];
      continue;
    }
    std::string ent = text.substr(i + 1, semi - i - 1);
    char c = 0;
    if (ent == "amp")
      c = '&';
    else if (ent == "lt")
      c = '<';
    else if (ent == "gt")
      c = '>';
    else if (ent == "quot")
      c = '"';
    else if (ent == "apos")
      c = '\'';
    else if (ent.size() > 1 && ent[0] == '#') {
      long v = 0;
      bool hex = ent[1] == 'x' || ent[1] == 'X';
      bool ok = ent.size() > (hex ? 2u : 1u);
      for (size_t k = hex ? 2 : 1; ok && k < ent.size(); ++k) {
        char d = ent[k];
        int digit = (d >= '0' && d <= '9')          ? d - '0'
                    : (hex && d >= 'a' && d <= 'f') ? d - 'a' + 10
                    : (hex && d >= 'A' && d <= 'F') ? d - 'A' + 10
                                                    : -1;
        if (digit < 0)
          ok = false;
        else
          v = v * (hex ? 16 : 10) + digit;
        if (v > 127) ok = false;
      }
      if (ok && v > 0) c = static_cast<char>(v);
    }
    if (c == 0) {
      out += text[i];
      continue;
    }
    out += c;
    i = semi;
  }
  return out;
}

}  // namespace

std::string XmlElementText(const std::string& xml, const char* tag) {
  size_t nameStart = 0;
  size_t end = FindOpen(xml, tag, 0, nameStart);
  if (end == std::string::npos) return std::string();
  size_t gt = xml.find('>', end);
  if (gt == std::string::npos || xml[gt - 1] == '/') return std::string();
  size_t close = xml.find("</", gt + 1);
  if (close == std::string::npos) return std::string();
  return Unescape(xml.substr(gt + 1, close - gt - 1));
}

bool XmlIsError(const std::string& xml) {
  size_t pos = 0;
  while ((pos = xml.find('<', pos)) != std::string::npos) {
    ++pos;
    if (pos < xml.size() && (xml[pos] == '?' || xml[pos] == '!')) continue;
    return xml.compare(pos, 5, "Error") == 0 && (pos + 5 < xml.size()) && xml[pos + 5] != '\0' &&
           std::strchr("> \t\r\n", xml[pos + 5]) != nullptr;
  }
  return false;
}

std::string XmlEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '&')
      out += "&amp;";
    else if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else if (c == '"')
      out += "&quot;";
    else
      out += c;
  }
  return out;
}

}  // namespace qltweb
