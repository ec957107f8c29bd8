// Typed RTSP headers (RFC 2326 section 12, RFC 2617 for authentication):
// each one parsed from and written to its text form, so that requests are
// read and replies built from values rather than by string surgery. Parsers
// take untrusted text and never throw; a false return means the header is
// malformed. Writers produce the canonical form that the parsers read back.
// Transport and Authorization/WWW-Authenticate have files of their own,
// included here so that one include brings every typed header.
#ifndef PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_HEADERS_H_
#define PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_HEADERS_H_

#include <string>
#include <vector>

#include "protocol/rtsp_in_server/wire/qz_rtsp_auth_header.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_transport.h"

namespace qz_rtsp_internal_server {

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

// ---- Require (12.32), Unsupported (12.42), Public (12.28) ------------------------------

// Comma-separated tokens, blanks trimmed, empty entries skipped.
std::vector<std::string> ParseRtspTokenList(const std::string& header);
std::string WriteRtspTokenList(const std::vector<std::string>& tokens);

// ---- Value equality, for tests and the round-trip fuzzer ------------------------------

bool operator==(const RtspSessionHeader& a, const RtspSessionHeader& b);
bool operator==(const RtpInfoEntry& a, const RtpInfoEntry& b);
bool operator==(const RtspRange& a, const RtspRange& b);  // exact: parsed times are whole ms

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_HEADERS_H_
