#include "protocol/rtsp_in_server/wire/qz_rtsp_lex.h"

#include <strings.h>

#include <cctype>

namespace qz_rtsp_internal_server {
namespace lex {

bool IsCtl(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  return (u < 0x20 && c != '\t') || u == 0x7F;
}

bool IsTokenChar(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  if (u <= 0x20 || u >= 0x7F) {
    return false;
  }
  for (const char* s = "()<>@,;:\\\"/[]?={}"; *s != '\0'; ++s) {
    if (c == *s) {
      return false;
    }
  }
  return true;
}

bool IsToken(const std::string& s) {
  for (char c : s) {
    if (!IsTokenChar(c)) {
      return false;
    }
  }
  return !s.empty();
}

size_t SkipBlanks(const std::string& s, size_t i) {
  while (i < s.size() && IsBlank(s[i]))
    ++i;
  return i;
}

std::string Trim(const std::string& s) {
  const size_t b = SkipBlanks(s, 0);
  size_t e = s.size();
  while (e > b && IsBlank(s[e - 1]))
    --e;
  return s.substr(b, e - b);
}

bool EqualsNoCase(const std::string& a, const char* b) {
  return strcasecmp(a.c_str(), b) == 0 && a.find('\0') == std::string::npos;
}

bool StartsWithNoCase(const std::string& s, size_t pos, const char* prefix) {
  for (; *prefix != '\0'; ++prefix, ++pos) {
    if (pos >= s.size() || tolower(static_cast<unsigned char>(s[pos])) != *prefix) {
      return false;
    }
  }
  return true;
}

bool SplitQuoted(const std::string& s, char sep, std::vector<std::string>& out, bool quotes) {
  out.assign(1, std::string());
  bool quoted = false;
  for (char c : s) {
    if (c == '"' && quotes) {
      quoted = !quoted;
    }
    if (c == sep && !quoted) {
      out.emplace_back();
    } else {
      out.back() += c;
    }
  }
  return !quoted;
}

std::pair<std::string, std::string> SplitParam(const std::string& param) {
  const size_t eq = param.find('=');
  return {Trim(param.substr(0, eq)), eq == std::string::npos ? "" : Trim(param.substr(eq + 1))};
}

bool ParseNumber(const std::string& s, size_t digits, long long max, long long& out) {
  if (s.empty() || s.size() > digits) {
    return false;
  }
  long long v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') {
      return false;
    }
    v = v * 10 + (c - '0');
  }
  out = v;
  return v <= max;
}

bool ReadQuotedString(const std::string& s, size_t& i, std::string& out) {
  out.clear();
  for (++i;; ++i) {
    if (i >= s.size()) {
      return false;  // unterminated
    }
    char c = s[i];
    if (c == '"') {
      ++i;
      return true;
    }
    if (c == '\\') {
      if (++i >= s.size()) {
        return false;
      }
      c = s[i];
    }
    if (IsCtl(c)) {
      return false;
    }
    out += c;
  }
}

std::string QuoteString(const std::string& value) {
  std::string out = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') {
      out += '\\';
    }
    out += c;
  }
  return out + '"';
}

}  // namespace lex
}  // namespace qz_rtsp_internal_server
