#include "protocol/rtsp_in_server/wire/qz_rtsp_url.h"

#include "protocol/rtsp_in_server/wire/qz_rtsp_lex.h"

namespace qz_rtsp_internal_server {
namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

// Percent-decodes `in`; false on a bad escape or a decoded control
// character (which would end up in a header line).
bool PercentDecode(const std::string& in, std::string& out) {
  out.clear();
  for (size_t i = 0; i < in.size(); ++i) {
    char c = in[i];
    if (c == '%') {
      const int hi = i + 2 < in.size() ? HexValue(in[i + 1]) : -1;
      const int lo = hi >= 0 ? HexValue(in[i + 2]) : -1;
      if (lo < 0) {
        return false;
      }
      c = static_cast<char>(hi * 16 + lo);
      i += 2;
    }
    if (lex::IsCtl(c)) {
      return false;
    }
    out += c;
  }
  return true;
}

bool IsVisible(const std::string& s) {
  for (unsigned char c : s) {
    if (c <= 32 || c >= 127) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::string RtspUrl::WithoutCredentials() const {
  const bool v6 = host.find(':') != std::string::npos;
  return std::string(tls ? "rtsps://" : "rtsp://") + (v6 ? "[" + host + "]" : host) + ":" +
         std::to_string(port) + path;
}

bool ParseRtspUrl(const std::string& text, RtspUrl& url) {
  url = RtspUrl();
  size_t pos;
  if (lex::StartsWithNoCase(text, 0, "rtsps://")) {
    url.tls = true;
    url.port = 322;
    pos = 8;
  } else if (lex::StartsWithNoCase(text, 0, "rtsp://")) {
    pos = 7;
  } else {
    return false;
  }
  if (!IsVisible(text)) {
    return false;
  }
  const size_t slash = text.find('/', pos);
  const std::string authority = text.substr(pos, slash == std::string::npos ? slash : slash - pos);
  url.path = slash == std::string::npos ? "/" : text.substr(slash);
  // The credentials end at the last '@' (a password may hold one unescaped).
  const size_t at = authority.rfind('@');
  std::string host_port = authority;
  if (at != std::string::npos) {
    const std::string userinfo = authority.substr(0, at);
    const size_t colon = userinfo.find(':');
    if (!PercentDecode(userinfo.substr(0, colon), url.user) ||
        (colon != std::string::npos && !PercentDecode(userinfo.substr(colon + 1), url.password))) {
      return false;
    }
    host_port = authority.substr(at + 1);
  }
  std::string port;
  if (!host_port.empty() && host_port[0] == '[') {
    const size_t close = host_port.find(']');
    if (close == std::string::npos || close < 2) {
      return false;
    }
    url.host = host_port.substr(1, close - 1);
    if (close + 1 < host_port.size()) {
      if (host_port[close + 1] != ':') {
        return false;
      }
      port = host_port.substr(close + 2);
    }
  } else {
    const size_t colon = host_port.find(':');
    url.host = host_port.substr(0, colon);
    if (colon != std::string::npos) {
      port = host_port.substr(colon + 1);
    }
    if (url.host.find_first_of("[]") != std::string::npos) {
      return false;
    }
  }
  if (url.host.empty()) {
    return false;
  }
  if (!port.empty() || host_port.back() == ':') {
    long long value = 0;
    if (!lex::ParseNumber(port, 5, 65535, value) || value == 0) {
      return false;
    }
    url.port = static_cast<int>(value);
  }
  return true;
}

}  // namespace qz_rtsp_internal_server
