#include "protocol/rtsp_in_server/wire/qz_rtsp_auth_header.h"

#include <strings.h>

#include <cstring>
#include <utility>

#include "protocol/rtsp_in_server/wire/qz_rtsp_lex.h"

namespace qz_rtsp_internal_server {
namespace {

using lex::IsBlank;
using lex::IsCtl;
using lex::IsTokenChar;
using lex::SkipBlanks;

// The RFC 2617 auth-param value as the writer puts it unquoted: what the
// parser reads back as the same unquoted value.
bool IsPlainAuthValue(const std::string& v) {
  if (v.empty() || v[0] == '=') {
    return false;
  }
  for (char c : v) {
    if (IsBlank(c) || IsCtl(c) || c == ',' || c == '"') {
      return false;
    }
  }
  return true;
}

// token68 (RFC 7235): Basic credentials.
bool IsToken68(const std::string& s) {
  size_t i = 0;
  static const char kExtra[] = "-._~+/";
  while (i < s.size() &&
         ((s[i] >= '0' && s[i] <= '9') || (s[i] >= 'a' && s[i] <= 'z') ||
          (s[i] >= 'A' && s[i] <= 'Z') || (s[i] != '\0' && strchr(kExtra, s[i]) != nullptr)))
    ++i;
  if (i == 0) {
    return false;
  }
  while (i < s.size() && s[i] == '=')
    ++i;
  return i == s.size();
}

size_t SkipToken(const std::string& s, size_t i) {
  while (i < s.size() && IsTokenChar(s[i]))
    ++i;
  return i;
}

}  // namespace

const std::string* RtspAuthHeader::Param(const std::string& name) const {
  for (const RtspAuthParam& p : params) {
    if (p.name.size() == name.size() &&
        strncasecmp(p.name.c_str(), name.c_str(), name.size()) == 0) {
      return &p.value;
    }
  }
  return nullptr;
}

bool ParseRtspAuth(const std::string& header, RtspAuthHeader& auth) {
  const size_t n = header.size();
  const size_t scheme_start = SkipBlanks(header, 0);
  size_t i = SkipToken(header, scheme_start);
  const std::string scheme = header.substr(scheme_start, i - scheme_start);
  RtspAuthHeader out;
  if (lex::EqualsNoCase(scheme, "basic")) {
    out.scheme = RtspAuthHeader::Scheme::kBasic;
  } else if (lex::EqualsNoCase(scheme, "digest")) {
    out.scheme = RtspAuthHeader::Scheme::kDigest;
  } else {
    return false;
  }
  if (i < n && !IsBlank(header[i])) {
    return false;
  }
  const std::string rest = lex::Trim(header.substr(i));
  if (out.scheme == RtspAuthHeader::Scheme::kBasic && (rest.empty() || IsToken68(rest))) {
    out.token = rest;
    auth = out;
    return true;
  }
  // 1#auth-param: name = token | quoted-string, blanks around and empty
  // elements (",,", trailing ",") tolerated. One pass over the text.
  for (;;) {
    while (i < n && (IsBlank(header[i]) || header[i] == ','))
      ++i;
    if (i == n) {
      break;
    }
    RtspAuthParam p;
    const size_t name_start = i;
    i = SkipToken(header, i);
    p.name = header.substr(name_start, i - name_start);
    i = SkipBlanks(header, i);
    if (p.name.empty() || i == n || header[i] != '=') {
      return false;
    }
    i = SkipBlanks(header, i + 1);
    if (i < n && header[i] == '"') {
      if (!lex::ReadQuotedString(header, i, p.value)) {
        return false;
      }
    } else {
      p.quoted = false;
      const size_t value_start = i;
      while (i < n && !IsBlank(header[i]) && header[i] != ',' && header[i] != '"' &&
             !IsCtl(header[i]))
        ++i;
      p.value = header.substr(value_start, i - value_start);
      if (!IsPlainAuthValue(p.value)) {
        return false;
      }
    }
    i = SkipBlanks(header, i);
    if (i < n && header[i] != ',') {
      return false;
    }
    out.params.push_back(std::move(p));
  }
  auth = out;
  return true;
}

std::string WriteRtspAuth(const RtspAuthHeader& auth) {
  std::string out = auth.scheme == RtspAuthHeader::Scheme::kBasic ? "Basic" : "Digest";
  if (!auth.token.empty()) {
    out += " " + auth.token;
  }
  for (size_t k = 0; k < auth.params.size(); ++k) {
    const RtspAuthParam& p = auth.params[k];
    out += (k == 0 ? " " : ", ") + p.name + "=";
    out += !p.quoted && IsPlainAuthValue(p.value) ? p.value : lex::QuoteString(p.value);
  }
  return out;
}

bool operator==(const RtspAuthParam& a, const RtspAuthParam& b) {
  return a.name == b.name && a.value == b.value && a.quoted == b.quoted;
}

bool operator==(const RtspAuthHeader& a, const RtspAuthHeader& b) {
  return a.scheme == b.scheme && a.token == b.token && a.params == b.params;
}

}  // namespace qz_rtsp_internal_server
