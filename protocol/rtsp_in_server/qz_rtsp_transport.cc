#include "protocol/rtsp_in_server/qz_rtsp_transport.h"

#include <strings.h>

#include <cstdlib>
#include <vector>

namespace qz_rtsp_internal_server {
namespace {

std::vector<std::string> Split(const std::string& s, char sep) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= s.size()) {
    size_t end = s.find(sep, start);
    if (end == std::string::npos) {
      end = s.size();
    }
    std::string part = s.substr(start, end - start);
    while (!part.empty() && part.front() == ' ')
      part.erase(part.begin());
    while (!part.empty() && part.back() == ' ')
      part.pop_back();
    out.push_back(part);
    start = end + 1;
  }
  return out;
}

// "a" or "a-b" with 0 <= a, b <= max; b defaults to a + 1.
bool ParseRange(const std::string& value, int max, int& a, int& b) {
  const size_t dash = value.find('-');
  const std::string first = value.substr(0, dash);
  const std::string second = dash == std::string::npos ? "" : value.substr(dash + 1);
  auto number = [max](const std::string& s, int& out) {
    if (s.empty() || s.size() > 5 || s.find_first_not_of("0123456789") != std::string::npos) {
      return false;
    }
    out = std::atoi(s.c_str());
    return out <= max;
  };
  if (!number(first, a)) {
    return false;
  }
  if (dash == std::string::npos) {
    b = a + 1;
    return b <= max;
  }
  return number(second, b);
}

bool ParseSpec(const std::string& spec, RtspTransport& t) {
  const std::vector<std::string> params = Split(spec, ';');
  if (params.empty()) {
    return false;
  }
  const std::string& proto = params[0];
  if (strcasecmp(proto.c_str(), "RTP/AVP") == 0 || strcasecmp(proto.c_str(), "RTP/AVP/UDP") == 0) {
    t.kind = RtspTransport::Kind::kUdp;
  } else if (strcasecmp(proto.c_str(), "RTP/AVP/TCP") == 0) {
    t.kind = RtspTransport::Kind::kTcp;
  } else {
    return false;
  }
  bool has_client_port = false;
  for (size_t i = 1; i < params.size(); ++i) {
    const std::string& p = params[i];
    const size_t eq = p.find('=');
    const std::string key = p.substr(0, eq);
    const std::string value = eq == std::string::npos ? "" : p.substr(eq + 1);
    if (strcasecmp(key.c_str(), "multicast") == 0) {
      t.multicast = true;
    } else if (strcasecmp(key.c_str(), "client_port") == 0) {
      if (!ParseRange(value, 65535, t.client_rtp_port, t.client_rtcp_port)) {
        return false;
      }
      has_client_port = true;
    } else if (strcasecmp(key.c_str(), "interleaved") == 0) {
      if (!ParseRange(value, 255, t.interleaved_rtp, t.interleaved_rtcp)) {
        return false;
      }
    } else if (strcasecmp(key.c_str(), "destination") == 0) {
      t.has_destination = true;
    }
  }
  if (t.multicast) {
    return false;
  }
  if (t.kind == RtspTransport::Kind::kUdp) {
    return has_client_port && t.client_rtp_port > 0 && t.client_rtcp_port > 0;
  }
  return true;
}

}  // namespace

bool ParseRtspTransport(const std::string& header, RtspTransport& transport) {
  for (const std::string& spec : Split(header, ',')) {
    RtspTransport t;
    if (ParseSpec(spec, t)) {
      transport = t;
      return true;
    }
  }
  return false;
}

}  // namespace qz_rtsp_internal_server
