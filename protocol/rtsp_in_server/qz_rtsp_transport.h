// The RTSP Transport header (RFC 2326 12.39), as far as a server of live
// unicast media needs it.
#ifndef PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_TRANSPORT_H_
#define PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_TRANSPORT_H_

#include <string>

namespace qz_rtsp_internal_server {

struct RtspTransport {
  enum class Kind { kUdp, kTcp };
  Kind kind = Kind::kUdp;
  bool multicast = false;
  int client_rtp_port = 0;  // UDP: client_port=a-b
  int client_rtcp_port = 0;
  int interleaved_rtp = -1;  // TCP: interleaved=a-b, -1 when absent
  int interleaved_rtcp = -1;
  bool has_destination = false;
};

// Picks the first transport spec of the (comma-separated) header that this
// server can serve: RTP/AVP or RTP/AVP/UDP unicast with a valid client_port
// pair, or RTP/AVP/TCP (interleaved channels are optional). False when none
// qualifies: the caller answers 461. A destination= parameter is reported so
// that the caller can refuse to send media to a third host.
bool ParseRtspTransport(const std::string& header, RtspTransport& transport);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_TRANSPORT_H_
