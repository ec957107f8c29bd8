// The RTSP Transport header (RFC 2326 section 12.39), parsed from and
// written to its text form. Parsers take untrusted text and never throw; a
// false return means the header is malformed. The writer produces the
// canonical form that the parsers read back.
#ifndef PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_TRANSPORT_H_
#define PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_TRANSPORT_H_

#include <cstdint>
#include <string>
#include <vector>

namespace qz_rtsp_internal_server {

struct RtspTransport {
  enum class Kind { kUdp, kTcp };  // RTP/AVP[/UDP] or RTP/AVP/TCP
  Kind kind = Kind::kUdp;
  bool multicast = false;  // "multicast" rather than "unicast"
  // Port and channel pairs; -1 when the parameter is absent.
  int client_rtp_port = -1;  // client_port=a-b
  int client_rtcp_port = -1;
  int server_rtp_port = -1;  // server_port=a-b
  int server_rtcp_port = -1;
  int interleaved_rtp = -1;  // interleaved=a-b
  int interleaved_rtcp = -1;
  bool has_ssrc = false;  // ssrc=<8 hex digits>
  uint32_t ssrc = 0;
  std::string mode;         // as given, without quotes; empty when absent (PLAY)
  std::string destination;  // empty when absent
  int ttl = -1;
  int multicast_rtp_port = -1;  // port=a-b: a multicast group's pair
  int multicast_rtcp_port = -1;

  bool has_destination() const { return !destination.empty(); }
  // mode=record (or receive): the client wants to publish, not to play.
  bool record() const;
};

// One transport spec ("RTP/AVP;unicast;client_port=4588-4589"). A single
// port ("client_port=4588") means the pair a, a+1.
bool ParseRtspTransportSpec(const std::string& spec, RtspTransport& transport);
// Every spec of a comma-separated header, in the client's order of preference.
bool ParseRtspTransports(const std::string& header, std::vector<RtspTransport>& transports);
// The first spec of the header that this server can serve: unicast UDP with
// a client_port pair, or TCP (interleaved channels optional), to play. False
// when none qualifies: the caller answers 461 Unsupported Transport.
bool ParseRtspTransport(const std::string& header, RtspTransport& transport);
// The same, among the TCP transports only: for a connection inside TLS,
// whose media must not leave it in clear.
bool ParseRtspTcpTransport(const std::string& header, RtspTransport& transport);
// The same for a server that also sends multicast: a UDP multicast
// transport to play qualifies too, whatever destination, port and ttl it
// asks for (the server chooses those).
bool ParseRtspTransportOrMulticast(const std::string& header, RtspTransport& transport);
std::string WriteRtspTransport(const RtspTransport& transport);

// Value equality, for tests and the round-trip fuzzer.
bool operator==(const RtspTransport& a, const RtspTransport& b);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_TRANSPORT_H_
