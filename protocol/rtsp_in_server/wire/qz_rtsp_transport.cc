#include "protocol/rtsp_in_server/wire/qz_rtsp_transport.h"

#include <cstdio>
#include <cstdlib>

#include "protocol/rtsp_in_server/wire/qz_rtsp_lex.h"

namespace qz_rtsp_internal_server {
namespace {

using lex::EqualsNoCase;
using lex::ParseNumber;
using lex::Trim;

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
    if (c == '"' || lex::IsCtl(c)) {
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

}  // namespace

bool RtspTransport::record() const {
  return EqualsNoCase(mode, "record") || EqualsNoCase(mode, "receive");
}

bool ParseRtspTransportSpec(const std::string& spec, RtspTransport& transport) {
  std::vector<std::string> params;
  if (!lex::SplitQuoted(spec, ';', params)) {
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
    const auto param = lex::SplitParam(params[i]);
    const std::string& key = param.first;
    const std::string& value = param.second;
    long long number = 0;
    if (EqualsNoCase(key, "unicast")) {
      t.multicast = false;
    } else if (EqualsNoCase(key, "multicast")) {
      t.multicast = true;
    } else if (EqualsNoCase(key, "client_port")) {
      if (!ParsePair(value, 65535, 1, t.client_rtp_port, t.client_rtcp_port))
        return false;
    } else if (EqualsNoCase(key, "port")) {
      if (!ParsePair(value, 65535, 1, t.multicast_rtp_port, t.multicast_rtcp_port))
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
  if (!lex::SplitQuoted(header, ',', specs)) {
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

namespace {

// Which transports a caller can serve: unicast UDP or TCP; TCP only (a
// connection inside TLS); or unicast and UDP multicast.
enum class Servable { kUnicast, kTcpOnly, kWithMulticast };

bool FirstServable(const std::string& header, RtspTransport& transport, Servable servable) {
  // Spec by spec, so that one this server does not know (RTP/SAVP, say)
  // does not hide a later one it does.
  std::vector<std::string> specs;
  if (!lex::SplitQuoted(header, ',', specs)) {
    return false;
  }
  for (const std::string& spec : specs) {
    RtspTransport t;
    if (!ParseRtspTransportSpec(spec, t) || t.record()) {
      continue;
    }
    const bool udp = t.kind == RtspTransport::Kind::kUdp;
    if (t.multicast ? servable != Servable::kWithMulticast || !udp
                    : udp && (servable == Servable::kTcpOnly || t.client_rtp_port <= 0 ||
                              t.client_rtcp_port <= 0)) {
      continue;
    }
    transport = t;
    return true;
  }
  return false;
}

}  // namespace

bool ParseRtspTransport(const std::string& header, RtspTransport& transport) {
  return FirstServable(header, transport, Servable::kUnicast);
}

bool ParseRtspTcpTransport(const std::string& header, RtspTransport& transport) {
  return FirstServable(header, transport, Servable::kTcpOnly);
}

bool ParseRtspTransportOrMulticast(const std::string& header, RtspTransport& transport) {
  return FirstServable(header, transport, Servable::kWithMulticast);
}

std::string WriteRtspTransport(const RtspTransport& t) {
  std::string out = t.kind == RtspTransport::Kind::kTcp ? "RTP/AVP/TCP" : "RTP/AVP";
  out += t.multicast ? ";multicast" : ";unicast";
  if (!t.destination.empty()) {
    out += ";destination=" + t.destination;
  }
  out += Pair("port", t.multicast_rtp_port, t.multicast_rtcp_port);
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
    // The parser takes a quoted mode as it stands (no escapes), and a
    // parsed mode holds no quote: quoting it is enough.
    out += ";mode=" + (lex::IsToken(t.mode) ? t.mode : "\"" + t.mode + "\"");
  }
  return out;
}

bool operator==(const RtspTransport& a, const RtspTransport& b) {
  return a.kind == b.kind && a.multicast == b.multicast && a.client_rtp_port == b.client_rtp_port &&
         a.client_rtcp_port == b.client_rtcp_port && a.server_rtp_port == b.server_rtp_port &&
         a.server_rtcp_port == b.server_rtcp_port && a.interleaved_rtp == b.interleaved_rtp &&
         a.interleaved_rtcp == b.interleaved_rtcp && a.has_ssrc == b.has_ssrc && a.ssrc == b.ssrc &&
         a.mode == b.mode && a.destination == b.destination && a.ttl == b.ttl &&
         a.multicast_rtp_port == b.multicast_rtp_port &&
         a.multicast_rtcp_port == b.multicast_rtcp_port;
}

}  // namespace qz_rtsp_internal_server
