// The Authorization (RFC 2617 3.2.2) and WWW-Authenticate (3.2.1) headers
// of RTSP, Basic and Digest, parsed from and written to their text form.
// The parser takes untrusted text and never throws; a false return means
// the header is malformed. The writer produces the canonical form that the
// parser reads back.
#ifndef PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_AUTH_HEADER_H_
#define PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_AUTH_HEADER_H_

#include <string>
#include <vector>

namespace qz_rtsp_internal_server {

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

// Value equality, for tests and the round-trip fuzzer.
bool operator==(const RtspAuthParam& a, const RtspAuthParam& b);
bool operator==(const RtspAuthHeader& a, const RtspAuthHeader& b);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_AUTH_HEADER_H_
