// rtsp:// and rtsps:// URLs as a client is given them (RFC 2326 3.2):
// credentials, host, port and path. The parser takes untrusted text and
// never throws.
#ifndef PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_URL_H_
#define PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_URL_H_

#include <string>

namespace qz_rtsp_internal_server {

struct RtspUrl {
  bool tls = false;  // rtsps://
  std::string user;  // percent-decoded; empty: none
  std::string password;
  std::string host;  // a name, or an address (IPv6 without brackets)
  int port = 554;    // 554, or 322 for rtsps, when the URL names none
  std::string path;  // from the '/' after the authority on ("/" when none)

  // "rtsp://host:port/path", without the credentials: what requests name
  // and what may be logged.
  std::string WithoutCredentials() const;
};

// False when the text is not an rtsp:// or rtsps:// URL with a host, when
// the port is not 1..65535, or when a part holds blanks, control
// characters or a bad percent escape.
bool ParseRtspUrl(const std::string& text, RtspUrl& url);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_URL_H_
