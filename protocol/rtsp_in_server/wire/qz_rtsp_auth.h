// RTSP authentication: Digest (RFC 2617 with MD5, with or without
// qop=auth, as RTSP clients implement it) and, only when allowed, Basic.
//
// Nonces carry their creation time and a keyed hash of it, so they need no
// server state: a nonce is good for `nonce_lifetime_ms` and cannot be forged
// without the server's random key. Every comparison of secrets is
// constant-time.
#ifndef PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_AUTH_H_
#define PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_AUTH_H_

#include <string>

namespace qz_rtsp_internal_server {

struct RtspRequest;

class RtspAuthenticator {
 public:
  // An empty user turns authentication off.
  RtspAuthenticator(std::string user,
                    std::string password,
                    std::string realm,
                    bool allow_basic,
                    long long nonce_lifetime_ms = 60000);

  bool enabled() const { return !user_.empty(); }

  // True when the request carries valid credentials (or authentication is
  // off). `now_ms` is the steady clock.
  bool Check(const RtspRequest& request, long long now_ms) const;

  // The WWW-Authenticate value(s) for a 401: a fresh Digest challenge, and a
  // Basic one when allowed (joined for one header each, in that order).
  std::string DigestChallenge(long long now_ms) const;
  std::string BasicChallenge() const;
  bool allow_basic() const { return allow_basic_; }

  // Digest response per RFC 2617 3.2.2.1 (qop empty: the RFC 2069 form).
  static std::string DigestResponse(const std::string& user,
                                    const std::string& realm,
                                    const std::string& password,
                                    const std::string& method,
                                    const std::string& uri,
                                    const std::string& nonce,
                                    const std::string& nc,
                                    const std::string& cnonce,
                                    const std::string& qop);
  static std::string Md5Hex(const std::string& text);

 private:
  std::string MakeNonce(long long now_ms) const;
  bool NonceValid(const std::string& nonce, long long now_ms) const;

  std::string user_;
  std::string password_;
  std::string realm_;
  bool allow_basic_;
  long long nonce_lifetime_ms_;
  std::string key_;  // random, per server
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_AUTH_H_
