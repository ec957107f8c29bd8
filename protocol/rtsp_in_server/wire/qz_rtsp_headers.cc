#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"

#include <cstdio>
#include <utility>

#include "protocol/rtsp_in_server/wire/qz_rtsp_lex.h"

namespace qz_rtsp_internal_server {
namespace {

using lex::EqualsNoCase;
using lex::ParseNumber;
using lex::StartsWithNoCase;
using lex::Trim;

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

}  // namespace

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
    const auto param = lex::SplitParam(header.substr(semi + 1));
    long long timeout = 0;
    if (!EqualsNoCase(param.first, "timeout") ||
        !ParseNumber(param.second, 9, 999999999, timeout)) {
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
      if (i == header.size() || StartsWithNoCase(header, lex::SkipBlanks(header, i + 1), "url=")) {
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
      const size_t j = lex::SkipBlanks(part, i + 1);
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
    lex::SplitQuoted(url_end < part.size() ? part.substr(url_end + 1) : "", ';', params, false);
    for (const std::string& p : params) {
      const auto param = lex::SplitParam(p);
      const std::string& key = param.first;
      const std::string& value = param.second;
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

// ---- Token lists ----------------------------------------------------------------------

std::vector<std::string> ParseRtspTokenList(const std::string& header) {
  std::vector<std::string> parts;
  lex::SplitQuoted(header, ',', parts, false);
  std::vector<std::string> out;
  for (const std::string& part : parts) {
    std::string token = Trim(part);
    if (!token.empty()) {
      out.push_back(std::move(token));
    }
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

}  // namespace qz_rtsp_internal_server
