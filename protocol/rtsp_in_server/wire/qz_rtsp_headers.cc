#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"

#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace qz_rtsp_internal_server {
namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

// Control characters (tab aside): never allowed in a value we keep, so
// that whatever a writer echoes stays one header line.
bool IsCtl(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  return (u < 0x20 && c != '\t') || u == 0x7F;
}

// RFC 2616 token characters.
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

std::string Trim(const std::string& s) {
  size_t b = 0;
  size_t e = s.size();
  while (b < e && IsBlank(s[b]))
    ++b;
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

// Splits on `sep` (outside double quotes when `quotes`); false on an
// unterminated quote.
bool SplitQuoted(const std::string& s,
                 char sep,
                 std::vector<std::string>& out,
                 bool quotes = true) {
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

// 1 to `digits` decimal digits, at most `max`.
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

// "a" (meaning a, a+1) or "a-b", both 0..max; the second at least `min_second`.
bool ParsePair(const std::string& value, int max, int min_second, int& a, int& b) {
  const size_t dash = value.find('-');
  long long first = 0;
  long long second = 0;
  if (!ParseNumber(Trim(value.substr(0, dash)), 5, max, first)) {
    return false;
  }
  if (dash == std::string::npos) {
    second = first + 1;
  } else if (!ParseNumber(Trim(value.substr(dash + 1)), 5, max, second)) {
    return false;
  }
  if (second > max || second < min_second) {
    return false;
  }
  a = static_cast<int>(first);
  b = static_cast<int>(second);
  return true;
}

// A transport parameter's value without its quotes; false when what is left
// holds a quote or a control character.
bool TransportValue(std::string value, std::string& out) {
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
    value = value.substr(1, value.size() - 2);
  }
  for (char c : value) {
    if (c == '"' || IsCtl(c)) {
      return false;
    }
  }
  out = value;
  return true;
}

std::string Pair(const char* name, int a, int b) {
  if (a < 0) {
    return std::string();
  }
  std::string out = std::string(";") + name + "=" + std::to_string(a);
  if (b >= 0) {
    out += "-" + std::to_string(b);
  }
  return out;
}

// Normal play time, "S[.frac]" or "H:MM:SS[.frac]", rounded to milliseconds.
bool ParseNpt(const std::string& s, long long& ms) {
  const size_t dot = s.find('.');
  const std::string whole = s.substr(0, dot);
  const std::string frac = dot == std::string::npos ? "" : s.substr(dot + 1);
  long long seconds = 0;
  const size_t colon = whole.find(':');
  if (colon == std::string::npos) {
    if (!ParseNumber(whole, 10, 9999999999LL, seconds)) {
      return false;
    }
  } else {
    const size_t colon2 = whole.find(':', colon + 1);
    long long h = 0, m = 0, sec = 0;
    if (colon2 == std::string::npos || colon2 - colon - 1 != 2 || whole.size() - colon2 - 1 != 2 ||
        !ParseNumber(whole.substr(0, colon), 6, 999999, h) ||
        !ParseNumber(whole.substr(colon + 1, 2), 2, 59, m) ||
        !ParseNumber(whole.substr(colon2 + 1), 2, 59, sec)) {
      return false;
    }
    seconds = h * 3600 + m * 60 + sec;
  }
  long long millis = 0;
  for (size_t i = 0; i < frac.size(); ++i) {
    if (frac[i] < '0' || frac[i] > '9') {
      return false;
    }
    if (i < 3) {
      millis = millis * 10 + (frac[i] - '0');
    } else if (i == 3 && frac[i] >= '5') {
      ++millis;  // half up, on the fourth decimal
    }
  }
  for (size_t i = frac.size(); i < 3; ++i) {
    millis *= 10;
  }
  ms = seconds * 1000 + millis;
  return ms <= 9999999999999LL;  // rounding up must not leave ten digits of seconds
}

std::string Seconds(double s) {
  char buf[512];
  snprintf(buf, sizeof(buf), "%.3f", s);
  return buf;
}

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

}  // namespace

// ---- Transport ------------------------------------------------------------------------

bool RtspTransport::record() const {
  return EqualsNoCase(mode, "record") || EqualsNoCase(mode, "receive");
}

bool ParseRtspTransportSpec(const std::string& spec, RtspTransport& transport) {
  std::vector<std::string> params;
  if (!SplitQuoted(spec, ';', params)) {
    return false;
  }
  RtspTransport t;
  const std::string proto = Trim(params[0]);
  if (EqualsNoCase(proto, "RTP/AVP") || EqualsNoCase(proto, "RTP/AVP/UDP")) {
    t.kind = RtspTransport::Kind::kUdp;
  } else if (EqualsNoCase(proto, "RTP/AVP/TCP")) {
    t.kind = RtspTransport::Kind::kTcp;
  } else {
    return false;
  }
  for (size_t i = 1; i < params.size(); ++i) {
    const size_t eq = params[i].find('=');
    const std::string key = Trim(params[i].substr(0, eq));
    const std::string value = eq == std::string::npos ? "" : Trim(params[i].substr(eq + 1));
    long long number = 0;
    if (EqualsNoCase(key, "unicast")) {
      t.multicast = false;
    } else if (EqualsNoCase(key, "multicast")) {
      t.multicast = true;
    } else if (EqualsNoCase(key, "client_port")) {
      if (!ParsePair(value, 65535, 1, t.client_rtp_port, t.client_rtcp_port))
        return false;
    } else if (EqualsNoCase(key, "server_port")) {
      if (!ParsePair(value, 65535, 1, t.server_rtp_port, t.server_rtcp_port))
        return false;
    } else if (EqualsNoCase(key, "interleaved")) {
      if (!ParsePair(value, 255, 0, t.interleaved_rtp, t.interleaved_rtcp))
        return false;
    } else if (EqualsNoCase(key, "ssrc")) {
      if (value.empty() || value.size() > 8 ||
          value.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return false;
      t.has_ssrc = true;
      t.ssrc = static_cast<uint32_t>(strtoul(value.c_str(), nullptr, 16));
    } else if (EqualsNoCase(key, "mode")) {
      if (!TransportValue(value, t.mode))
        return false;
    } else if (EqualsNoCase(key, "destination")) {
      if (!TransportValue(value, t.destination) ||
          t.destination.find_first_of(" \t;,") != std::string::npos)
        return false;
    } else if (EqualsNoCase(key, "ttl")) {
      if (!ParseNumber(value, 3, 255, number))
        return false;
      t.ttl = static_cast<int>(number);
    }  // anything else: ignored
  }
  transport = t;
  return true;
}

bool ParseRtspTransports(const std::string& header, std::vector<RtspTransport>& transports) {
  std::vector<std::string> specs;
  if (!SplitQuoted(header, ',', specs)) {
    return false;
  }
  std::vector<RtspTransport> out;
  for (const std::string& spec : specs) {
    if (Trim(spec).empty()) {
      continue;
    }
    RtspTransport t;
    if (!ParseRtspTransportSpec(spec, t)) {
      return false;
    }
    out.push_back(t);
  }
  if (out.empty()) {
    return false;
  }
  transports.swap(out);
  return true;
}

bool ParseRtspTransport(const std::string& header, RtspTransport& transport) {
  // Spec by spec, so that one this server does not know (RTP/SAVP, say)
  // does not hide a later one it does.
  std::vector<std::string> specs;
  if (!SplitQuoted(header, ',', specs)) {
    return false;
  }
  for (const std::string& spec : specs) {
    RtspTransport t;
    if (!ParseRtspTransportSpec(spec, t) || t.multicast || t.record()) {
      continue;
    }
    if (t.kind == RtspTransport::Kind::kUdp &&
        (t.client_rtp_port <= 0 || t.client_rtcp_port <= 0)) {
      continue;
    }
    transport = t;
    return true;
  }
  return false;
}

std::string WriteRtspTransport(const RtspTransport& t) {
  std::string out = t.kind == RtspTransport::Kind::kTcp ? "RTP/AVP/TCP" : "RTP/AVP";
  out += t.multicast ? ";multicast" : ";unicast";
  if (!t.destination.empty()) {
    out += ";destination=" + t.destination;
  }
  if (t.ttl >= 0) {
    out += ";ttl=" + std::to_string(t.ttl);
  }
  out += Pair("client_port", t.client_rtp_port, t.client_rtcp_port);
  out += Pair("server_port", t.server_rtp_port, t.server_rtcp_port);
  out += Pair("interleaved", t.interleaved_rtp, t.interleaved_rtcp);
  if (t.has_ssrc) {
    char buf[16];
    snprintf(buf, sizeof(buf), "%08X", static_cast<unsigned>(t.ssrc));
    out += std::string(";ssrc=") + buf;
  }
  if (!t.mode.empty()) {
    out += ";mode=" + (IsToken(t.mode) ? t.mode : "\"" + t.mode + "\"");
  }
  return out;
}

// ---- Session --------------------------------------------------------------------------

bool ParseRtspSession(const std::string& header, RtspSessionHeader& session) {
  const size_t semi = header.find(';');
  RtspSessionHeader s;
  s.id = Trim(header.substr(0, semi));
  if (s.id.empty() || s.id.size() > 255) {
    return false;
  }
  for (char c : s.id) {
    const bool alnum = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (!alnum && std::string("$-_.+!*'(),").find(c) == std::string::npos) {
      return false;
    }
  }
  if (semi != std::string::npos) {
    const std::string param = header.substr(semi + 1);
    const size_t eq = param.find('=');
    long long timeout = 0;
    if (eq == std::string::npos || !EqualsNoCase(Trim(param.substr(0, eq)), "timeout") ||
        !ParseNumber(Trim(param.substr(eq + 1)), 9, 999999999, timeout)) {
      return false;
    }
    s.timeout_s = static_cast<int>(timeout);
  }
  session = s;
  return true;
}

std::string WriteRtspSession(const RtspSessionHeader& session) {
  if (session.timeout_s < 0) {
    return session.id;
  }
  return session.id + ";timeout=" + std::to_string(session.timeout_s);
}

// ---- RTP-Info -------------------------------------------------------------------------

bool ParseRtpInfo(const std::string& header, std::vector<RtpInfoEntry>& entries) {
  // Entries start at "url=", at the beginning or after a comma: a comma
  // elsewhere belongs to the url. The url ends at ";seq=" or ";rtptime="
  // (blanks allowed around the ';'); a url holding those cannot be told
  // apart, as in every other implementation.
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t i = 0; i <= header.size(); ++i) {
    if (i == header.size() || header[i] == ',') {
      size_t j = i + 1;
      while (j < header.size() && IsBlank(header[j]))
        ++j;
      if (i == header.size() || StartsWithNoCase(header, j, "url=")) {
        parts.push_back(header.substr(start, i - start));
        start = i + 1;
      }
    }
  }
  std::vector<RtpInfoEntry> out;
  for (const std::string& raw : parts) {
    const std::string part = Trim(raw);
    if (!StartsWithNoCase(part, 0, "url=")) {
      return false;
    }
    size_t url_end = part.size();
    for (size_t i = 4; i < part.size(); ++i) {
      if (part[i] != ';') {
        continue;
      }
      size_t j = i + 1;
      while (j < part.size() && IsBlank(part[j]))
        ++j;
      if (StartsWithNoCase(part, j, "seq=") || StartsWithNoCase(part, j, "rtptime=")) {
        url_end = i;
        break;
      }
    }
    RtpInfoEntry e;
    e.url = Trim(part.substr(4, url_end - 4));
    if (e.url.empty()) {
      return false;
    }
    for (char c : e.url) {
      const unsigned char u = static_cast<unsigned char>(c);
      if (u <= 0x20 || u >= 0x7F) {
        return false;
      }
    }
    std::vector<std::string> params;
    SplitQuoted(url_end < part.size() ? part.substr(url_end + 1) : "", ';', params, false);
    for (const std::string& p : params) {
      const size_t eq = p.find('=');
      const std::string key = Trim(p.substr(0, eq));
      const std::string value = eq == std::string::npos ? "" : Trim(p.substr(eq + 1));
      long long number = 0;
      if (EqualsNoCase(key, "seq")) {
        if (!ParseNumber(value, 10, 65535, number))
          return false;
        e.seq = static_cast<int>(number);
      } else if (EqualsNoCase(key, "rtptime")) {
        if (!ParseNumber(value, 10, 4294967295LL, number))
          return false;
        e.rtptime = number;
      }  // empty or unknown: ignored
    }
    out.push_back(e);
  }
  entries.swap(out);
  return true;
}

std::string WriteRtpInfo(const std::vector<RtpInfoEntry>& entries) {
  std::string out;
  for (const RtpInfoEntry& e : entries) {
    if (!out.empty()) {
      out += ",";
    }
    out += "url=" + e.url;
    if (e.seq >= 0) {
      out += ";seq=" + std::to_string(e.seq);
    }
    if (e.rtptime >= 0) {
      out += ";rtptime=" + std::to_string(e.rtptime);
    }
  }
  return out;
}

// ---- Range ----------------------------------------------------------------------------

bool ParseRtspRange(const std::string& header, RtspRange& range) {
  // A ";time=" parameter (when to act) is not used, and ignored.
  const std::string value = Trim(header.substr(0, header.find(';')));
  if (!StartsWithNoCase(value, 0, "npt")) {
    return false;
  }
  const std::string rest = Trim(value.substr(3));
  const size_t dash = rest.find('-');
  if (rest.empty() || rest[0] != '=' || dash == std::string::npos) {
    return false;
  }
  const std::string start = Trim(rest.substr(1, dash - 1));
  const std::string end = Trim(rest.substr(dash + 1));
  RtspRange r;
  long long start_ms = 0;
  long long end_ms = 0;
  if (EqualsNoCase(start, "now")) {
    r.start_now = true;
  } else if (!ParseNpt(start, start_ms)) {
    return false;  // also "-20": no start
  }
  if (!end.empty()) {
    if (!ParseNpt(end, end_ms) || (!r.start_now && end_ms < start_ms)) {
      return false;
    }
    r.has_end = true;
    r.end_s = end_ms / 1000.0;
  }
  r.start_s = start_ms / 1000.0;
  range = r;
  return true;
}

std::string WriteRtspRange(const RtspRange& range) {
  std::string out = "npt=" + (range.start_now ? std::string("now") : Seconds(range.start_s)) + "-";
  if (range.has_end) {
    out += Seconds(range.end_s);
  }
  return out;
}

// ---- Authorization / WWW-Authenticate -------------------------------------------------

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
  size_t i = 0;
  while (i < n && IsBlank(header[i]))
    ++i;
  const size_t scheme_start = i;
  while (i < n && IsTokenChar(header[i]))
    ++i;
  const std::string scheme = header.substr(scheme_start, i - scheme_start);
  RtspAuthHeader out;
  if (EqualsNoCase(scheme, "basic")) {
    out.scheme = RtspAuthHeader::Scheme::kBasic;
  } else if (EqualsNoCase(scheme, "digest")) {
    out.scheme = RtspAuthHeader::Scheme::kDigest;
  } else {
    return false;
  }
  if (i < n && !IsBlank(header[i])) {
    return false;
  }
  const std::string rest = Trim(header.substr(i));
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
    while (i < n && IsTokenChar(header[i]))
      ++i;
    p.name = header.substr(name_start, i - name_start);
    while (i < n && IsBlank(header[i]))
      ++i;
    if (p.name.empty() || i == n || header[i] != '=') {
      return false;
    }
    ++i;
    while (i < n && IsBlank(header[i]))
      ++i;
    if (i < n && header[i] == '"') {
      for (++i;; ++i) {
        if (i >= n) {
          return false;  // unterminated
        }
        char c = header[i];
        if (c == '"') {
          ++i;
          break;
        }
        if (c == '\\') {
          if (++i >= n) {
            return false;
          }
          c = header[i];
        }
        if (IsCtl(c)) {
          return false;
        }
        p.value += c;
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
    while (i < n && IsBlank(header[i]))
      ++i;
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
    if (!p.quoted && IsPlainAuthValue(p.value)) {
      out += p.value;
      continue;
    }
    out += '"';
    for (char c : p.value) {
      if (c == '"' || c == '\\') {
        out += '\\';
      }
      out += c;
    }
    out += '"';
  }
  return out;
}

// ---- Token lists ----------------------------------------------------------------------

std::vector<std::string> ParseRtspTokenList(const std::string& header) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= header.size()) {
    size_t end = header.find(',', start);
    if (end == std::string::npos) {
      end = header.size();
    }
    std::string token = Trim(header.substr(start, end - start));
    if (!token.empty()) {
      out.push_back(std::move(token));
    }
    start = end + 1;
  }
  return out;
}

std::string WriteRtspTokenList(const std::vector<std::string>& tokens) {
  std::string out;
  for (const std::string& t : tokens) {
    out += (out.empty() ? "" : ", ") + t;
  }
  return out;
}

// ---- Equality -------------------------------------------------------------------------

bool operator==(const RtspTransport& a, const RtspTransport& b) {
  return a.kind == b.kind && a.multicast == b.multicast && a.client_rtp_port == b.client_rtp_port &&
         a.client_rtcp_port == b.client_rtcp_port && a.server_rtp_port == b.server_rtp_port &&
         a.server_rtcp_port == b.server_rtcp_port && a.interleaved_rtp == b.interleaved_rtp &&
         a.interleaved_rtcp == b.interleaved_rtcp && a.has_ssrc == b.has_ssrc && a.ssrc == b.ssrc &&
         a.mode == b.mode && a.destination == b.destination && a.ttl == b.ttl;
}

bool operator==(const RtspSessionHeader& a, const RtspSessionHeader& b) {
  return a.id == b.id && a.timeout_s == b.timeout_s;
}

bool operator==(const RtpInfoEntry& a, const RtpInfoEntry& b) {
  return a.url == b.url && a.seq == b.seq && a.rtptime == b.rtptime;
}

bool operator==(const RtspRange& a, const RtspRange& b) {
  return a.start_now == b.start_now && a.start_s == b.start_s && a.has_end == b.has_end &&
         a.end_s == b.end_s;
}

bool operator==(const RtspAuthParam& a, const RtspAuthParam& b) {
  return a.name == b.name && a.value == b.value && a.quoted == b.quoted;
}

bool operator==(const RtspAuthHeader& a, const RtspAuthHeader& b) {
  return a.scheme == b.scheme && a.token == b.token && a.params == b.params;
}

}  // namespace qz_rtsp_internal_server
