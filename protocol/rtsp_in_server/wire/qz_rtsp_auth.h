// RTSP authentication: Digest (RFC 2617 with MD5 and MD5-sess, RFC 7616
// with SHA-256 and SHA-256-sess; with or without qop=auth, as RTSP clients
// implement it) and, only when allowed, Basic.
//
// A nonce belongs to one connection: it is an HMAC-SHA256, under a random
// key of the server's, of the connection's number, a count and the time it
// was made, and the connection keeps those (RtspAuthState) to check it. A
// nonce captured on one connection is refused on every other, and it says
// nothing about the device (no clock in clear). With qop=auth each answer
// must carry a higher nc than the last one accepted for its nonce. The
// digest's uri must be the request's.
//
// Every check does the same work whatever fails: the expected response is
// always computed in full and the verdicts of the single checks are
// combined without an early exit, so a wrong user name answers no sooner
// than a wrong password.
#ifndef PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_AUTH_H_
#define PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_AUTH_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qz_rtsp_internal_server {

struct RtspRequest;

// What a connection holds of its Digest nonce; it lives with the connection.
struct RtspAuthState {
  uint64_t connection = 0;  // the server's number for the connection; 0: none yet
  uint32_t generation = 0;  // nonces made for the connection so far
  uint32_t last_nc = 0;     // highest nc accepted with the current nonce
  long long issued_ms = 0;  // when the current nonce was made (steady clock)
};

class RtspAuthenticator {
 public:
  enum class Verdict {
    kOk,
    kDenied,
    // The credentials were right but the nonce has expired: the challenge
    // says stale=true, so that clients answer it without asking the user.
    kStale,
  };
  enum class Algorithm { kMd5, kMd5Sess, kSha256, kSha256Sess };

  // An empty user turns authentication off.
  RtspAuthenticator(std::string user,
                    std::string password,
                    std::string realm,
                    bool allow_basic,
                    long long nonce_lifetime_ms = 60000);

  bool enabled() const { return !user_.empty(); }

  // Whether the request carries valid credentials for the connection whose
  // state is `state` (kOk when authentication is off). A Digest answer
  // accepted with qop=auth moves the state's nc on. `now_ms`: steady clock.
  Verdict Check(const RtspRequest& request, RtspAuthState& state, long long now_ms) const;

  // The WWW-Authenticate values of a 401, in order: Digest with SHA-256,
  // Digest with MD5, and Basic when allowed. Both Digest challenges carry
  // the connection's nonce: the current one while it has half its lifetime
  // or more ahead, else a new one. Clients that read only one Digest
  // challenge (FFmpeg, GStreamer) take the last one, MD5.
  std::vector<std::string> Challenges(RtspAuthState& state, long long now_ms, bool stale);

  // The Digest response of RFC 2617 3.2.2.1 / RFC 7616 3.4.1 (qop empty:
  // the RFC 2069 form).
  static std::string DigestResponse(Algorithm algorithm,
                                    const std::string& user,
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
  std::string NonceOf(const RtspAuthState& state) const;

  std::string user_;
  std::string password_;
  std::string realm_;
  bool allow_basic_;
  long long nonce_lifetime_ms_;
  std::string key_;  // random, per server
  uint64_t connections_ = 0;
};

// The client's side: answers a server's challenges with the credentials
// given. Digest is preferred to Basic (which sends the password in clear),
// and SHA-256 to MD5; qop=auth when the challenge offers it, with a random
// client nonce and a count that grows with each request.
class RtspClientAuth {
 public:
  RtspClientAuth() = default;
  RtspClientAuth(std::string user, std::string password)
      : user_(std::move(user)), password_(std::move(password)) {}

  bool has_credentials() const { return !user_.empty(); }
  // Takes the WWW-Authenticate values of a 401 and keeps the strongest
  // challenge that can be answered; Basic only when `allow_basic` (it puts
  // the password on the wire: only inside TLS, or when the application
  // accepts that). False when there are no credentials, when none can be
  // answered, or when the same nonce was refused before without stale=true
  // (the credentials are wrong: asking again with them would not help).
  bool OnChallenges(const std::vector<std::string>& challenges, bool allow_basic = true);
  // The Authorization value for a request; empty before a challenge.
  std::string Authorize(const std::string& method, const std::string& uri);
  // "Digest" or "Basic" once a challenge was taken; empty before.
  std::string scheme() const;

 private:
  std::string user_;
  std::string password_;
  bool has_challenge_ = false;
  bool basic_ = false;
  RtspAuthenticator::Algorithm algorithm_ = RtspAuthenticator::Algorithm::kMd5;
  std::string algorithm_name_;
  std::string realm_;
  std::string nonce_;
  std::string opaque_;
  bool qop_auth_ = false;
  uint32_t nc_ = 0;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_AUTH_H_
