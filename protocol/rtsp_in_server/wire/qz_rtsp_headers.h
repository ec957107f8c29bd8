// Typed RTSP headers (RFC 2326 section 12, RFC 2617 for authentication):
// each one parsed from and written to its text form, so that requests are
// read and replies built from values rather than by string surgery. Parsers
// take untrusted text and never throw; a false return means the header is
// malformed. Writers produce the canonical form that the parsers read back.
#ifndef PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_HEADERS_H_
#define PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_HEADERS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace qz_rtsp_internal_server {

// ---- Transport (12.39) ----------------------------------------------------------------

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
std::string WriteRtspTransport(const RtspTransport& transport);

// ---- Session (12.37) ------------------------------------------------------------------

struct RtspSessionHeader {
  std::string id;
  int timeout_s = -1;  // -1: no timeout parameter
};

bool ParseRtspSession(const std::string& header, RtspSessionHeader& session);
std::string WriteRtspSession(const RtspSessionHeader& session);

// ---- RTP-Info (12.33) -----------------------------------------------------------------

struct RtpInfoEntry {
  std::string url;
  int seq = -1;            // -1: absent; else 0..65535
  long long rtptime = -1;  // -1: absent; else 0..2^32-1
};

bool ParseRtpInfo(const std::string& header, std::vector<RtpInfoEntry>& entries);
std::string WriteRtpInfo(const std::vector<RtpInfoEntry>& entries);

// ---- Range (12.29), normal play time only ---------------------------------------------

struct RtspRange {
  bool start_now = false;  // npt=now-
  double start_s = 0;      // seconds, when not now
  bool has_end = false;
  double end_s = 0;
};

bool ParseRtspRange(const std::string& header, RtspRange& range);
// Three decimals: "npt=0.000-", "npt=1.500-20.000".
std::string WriteRtspRange(const RtspRange& range);

// ---- Authorization (RFC 2617 3.2.2) and WWW-Authenticate (3.2.1) ----------------------

struct RtspAuthParam {
  std::string name;
  std::string value;   // unquoted, escapes removed
  bool quoted = true;  // written as a quoted string
};

struct RtspAuthHeader {
  enum class Scheme { kBasic, kDigest };
  Scheme scheme = Scheme::kDigest;
  std::string token;                  // Basic: the base64 credentials (or challenge's empty)
  std::vector<RtspAuthParam> params;  // Digest, in order; Basic challenge: realm

  // The first parameter named `name` (case-insensitive), or null.
  const std::string* Param(const std::string& name) const;
};

bool ParseRtspAuth(const std::string& header, RtspAuthHeader& auth);
std::string WriteRtspAuth(const RtspAuthHeader& auth);

// ---- Require (12.32), Unsupported (12.42), Public (12.28) ------------------------------

// Comma-separated tokens, blanks trimmed, empty entries skipped.
std::vector<std::string> ParseRtspTokenList(const std::string& header);
std::string WriteRtspTokenList(const std::vector<std::string>& tokens);

// ---- Value equality (added: for tests and the round-trip fuzzer) ---------------------

bool operator==(const RtspTransport& a, const RtspTransport& b);
bool operator==(const RtspSessionHeader& a, const RtspSessionHeader& b);
bool operator==(const RtpInfoEntry& a, const RtpInfoEntry& b);
bool operator==(const RtspRange& a, const RtspRange& b);  // exact: parsed times are whole ms
bool operator==(const RtspAuthParam& a, const RtspAuthParam& b);
bool operator==(const RtspAuthHeader& a, const RtspAuthHeader& b);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_HEADERS_H_
