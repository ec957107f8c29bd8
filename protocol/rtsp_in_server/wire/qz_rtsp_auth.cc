#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <random>

#include "protocol/rtsp_in_server/wire/qz_rtsp_auth_header.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_lex.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"
#include "utility/qz_base64.h"

namespace qz_rtsp_internal_server {
namespace {

constexpr size_t kNonceBytes = 16;  // of the HMAC, as 32 hex digits

std::string HexDigest(const EVP_MD* md, const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(text.data(), text.size(), digest, &size, md, nullptr);
  return qz_utility::HexEncode(digest, size);
}

// Equality in time that depends on neither content nor length: both sides
// are hashed first, and the hashes compared without an early exit.
bool SecretEqual(const std::string& a, const std::string& b) {
  unsigned char ha[32];
  unsigned char hb[32];
  EVP_Digest(a.data(), a.size(), ha, nullptr, EVP_sha256(), nullptr);
  EVP_Digest(b.data(), b.size(), hb, nullptr, EVP_sha256(), nullptr);
  return CRYPTO_memcmp(ha, hb, sizeof(ha)) == 0;
}

// A parameter's value, empty when absent.
std::string ParamOf(const RtspAuthHeader& auth, const char* name) {
  const std::string* value = auth.Param(name);
  return value == nullptr ? std::string() : *value;
}

// The algorithm an answer names (none: MD5); false for one not known.
bool ParseAlgorithm(const RtspAuthHeader& auth, RtspAuthenticator::Algorithm& algorithm) {
  const std::string* name = auth.Param("algorithm");
  using A = RtspAuthenticator::Algorithm;
  static const struct {
    const char* name;
    A algorithm;
  } kKnown[] = {{"MD5", A::kMd5},
                {"MD5-sess", A::kMd5Sess},
                {"SHA-256", A::kSha256},
                {"SHA-256-sess", A::kSha256Sess}};
  algorithm = A::kMd5;
  if (name == nullptr) {
    return true;
  }
  for (const auto& known : kKnown) {
    if (strcasecmp(name->c_str(), known.name) == 0) {
      algorithm = known.algorithm;
      return true;
    }
  }
  return false;
}

// nc is 8 hex digits (RFC 2617 3.2.2).
bool ParseNonceCount(const std::string& nc, uint32_t& value) {
  if (nc.size() != 8 || nc.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    return false;
  }
  value = static_cast<uint32_t>(std::strtoul(nc.c_str(), nullptr, 16));
  return true;
}

// The digest's uri names the request's resource: the Request-URI itself,
// as FFmpeg, GStreamer and live555 send it, or its absolute path (with
// query), as HTTP clients do.
bool UriMatches(const std::string& digest_uri, const std::string& request_uri) {
  if (digest_uri == request_uri) {
    return true;
  }
  const size_t scheme = request_uri.find("://");
  if (scheme == std::string::npos || digest_uri.empty() || digest_uri[0] != '/') {
    return false;
  }
  const size_t path = request_uri.find('/', scheme + 3);
  return path == std::string::npos ? digest_uri == "/"
                                   : request_uri.compare(path, std::string::npos, digest_uri) == 0;
}

std::string Lower(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'F') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return s;
}

}  // namespace

RtspAuthenticator::RtspAuthenticator(std::string user,
                                     std::string password,
                                     std::string realm,
                                     bool allow_basic,
                                     long long nonce_lifetime_ms)
    : user_(std::move(user)),
      password_(std::move(password)),
      realm_(std::move(realm)),
      allow_basic_(allow_basic),
      nonce_lifetime_ms_(nonce_lifetime_ms) {
  unsigned char key[32] = {0};
  if (RAND_bytes(key, sizeof(key)) != 1) {
    // OpenSSL could not seed itself (it practically never happens): the
    // platform's source rather than a known key, and no crash of an app
    // that may not even use authentication.
    std::random_device device;
    for (unsigned char& byte : key) {
      byte = static_cast<unsigned char>(device());
    }
  }
  key_.assign(reinterpret_cast<const char*>(key), sizeof(key));
}

std::string RtspAuthenticator::Md5Hex(const std::string& text) {
  return HexDigest(EVP_md5(), text);
}

std::string RtspAuthenticator::DigestResponse(Algorithm algorithm,
                                              const std::string& user,
                                              const std::string& realm,
                                              const std::string& password,
                                              const std::string& method,
                                              const std::string& uri,
                                              const std::string& nonce,
                                              const std::string& nc,
                                              const std::string& cnonce,
                                              const std::string& qop) {
  const bool sha256 = algorithm == Algorithm::kSha256 || algorithm == Algorithm::kSha256Sess;
  const EVP_MD* md = sha256 ? EVP_sha256() : EVP_md5();
  std::string ha1 = HexDigest(md, user + ":" + realm + ":" + password);
  if (algorithm == Algorithm::kMd5Sess || algorithm == Algorithm::kSha256Sess) {
    ha1 = HexDigest(md, ha1 + ":" + nonce + ":" + cnonce);
  }
  const std::string ha2 = HexDigest(md, method + ":" + uri);
  if (qop.empty()) {
    return HexDigest(md, ha1 + ":" + nonce + ":" + ha2);
  }
  return HexDigest(md, ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":" + qop + ":" + ha2);
}

std::string RtspAuthenticator::NonceOf(const RtspAuthState& state) const {
  unsigned char data[20];
  for (int i = 0; i < 8; ++i) {
    data[i] = static_cast<unsigned char>(state.connection >> (56 - 8 * i));
    data[12 + i] =
        static_cast<unsigned char>(static_cast<uint64_t>(state.issued_ms) >> (56 - 8 * i));
  }
  for (int i = 0; i < 4; ++i) {
    data[8 + i] = static_cast<unsigned char>(state.generation >> (24 - 8 * i));
  }
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()), data, sizeof(data), mac, &size);
  return qz_utility::HexEncode(mac, kNonceBytes);
}

std::vector<std::string> RtspAuthenticator::Challenges(RtspAuthState& state,
                                                       long long now_ms,
                                                       bool stale) {
  // A nonce with half its life or more ahead is offered again: a client
  // whose answers lag one challenge behind (GStreamer's, while it shuts
  // down) then still answers with the current nonce, and one that retries
  // has time to.
  const long long age = now_ms - state.issued_ms;
  if (state.connection == 0 || age < 0 || age > nonce_lifetime_ms_ / 2) {
    if (state.connection == 0) {
      state.connection = ++connections_;
    }
    ++state.generation;
    state.issued_ms = now_ms;
    state.last_nc = 0;
  }
  const std::string nonce = NonceOf(state);
  std::vector<std::string> out;
  for (const char* algorithm : {"SHA-256", "MD5"}) {
    RtspAuthHeader challenge;
    challenge.scheme = RtspAuthHeader::Scheme::kDigest;
    challenge.params = {{"realm", realm_, true},
                        {"qop", "auth", true},
                        {"algorithm", algorithm, false},
                        {"nonce", nonce, true}};
    if (stale) {
      challenge.params.push_back({"stale", "true", false});
    }
    out.push_back(WriteRtspAuth(challenge));
  }
  if (allow_basic_) {
    RtspAuthHeader challenge;
    challenge.scheme = RtspAuthHeader::Scheme::kBasic;
    challenge.params = {{"realm", realm_, true}};
    out.push_back(WriteRtspAuth(challenge));
  }
  return out;
}

RtspAuthenticator::Verdict RtspAuthenticator::Check(const RtspRequest& request,
                                                    RtspAuthState& state,
                                                    long long now_ms) const {
  if (!enabled()) {
    return Verdict::kOk;
  }
  const std::string* header = request.Header("Authorization");
  RtspAuthHeader auth;
  if (header == nullptr || !ParseRtspAuth(*header, auth)) {
    return Verdict::kDenied;
  }
  if (auth.scheme == RtspAuthHeader::Scheme::kBasic) {
    std::string decoded;
    const bool ok = allow_basic_ && !auth.token.empty() &&
                    qz_utility::Base64Decode(auth.token, decoded) &&
                    SecretEqual(decoded, user_ + ":" + password_);
    return ok ? Verdict::kOk : Verdict::kDenied;
  }
  // Nothing below returns early: every verdict is folded into the flags
  // and the expected response is computed whatever they say.
  const std::string nonce = ParamOf(auth, "nonce");
  const std::string qop = ParamOf(auth, "qop");
  const std::string nc = ParamOf(auth, "nc");
  const std::string cnonce = ParamOf(auth, "cnonce");
  const std::string uri = ParamOf(auth, "uri");
  Algorithm algorithm = Algorithm::kMd5;
  bool form_ok = ParseAlgorithm(auth, algorithm);
  uint32_t count = 0;
  if (qop == "auth") {
    form_ok &= ParseNonceCount(nc, count) && !cnonce.empty();
  } else {
    form_ok &= qop.empty();  // auth-int is not offered
  }
  if (algorithm == Algorithm::kMd5Sess || algorithm == Algorithm::kSha256Sess) {
    form_ok &= !cnonce.empty();
  }
  const std::string expected = DigestResponse(algorithm, user_, realm_, password_, request.method,
                                              uri, nonce, nc, cnonce, qop);
  bool credentials_ok = form_ok;
  credentials_ok &= SecretEqual(ParamOf(auth, "username"), user_);
  credentials_ok &= SecretEqual(Lower(ParamOf(auth, "response")), expected);
  credentials_ok &= ParamOf(auth, "realm") == realm_;
  credentials_ok &= UriMatches(uri, request.uri);
  const bool own_nonce = state.connection != 0 && SecretEqual(nonce, NonceOf(state));
  const bool fresh = now_ms >= state.issued_ms && now_ms - state.issued_ms <= nonce_lifetime_ms_;
  const bool counted = qop.empty() || count > state.last_nc;
  if (credentials_ok && own_nonce && fresh && counted) {
    if (!qop.empty()) {
      state.last_nc = count;
    }
    return Verdict::kOk;
  }
  return credentials_ok && own_nonce && !fresh ? Verdict::kStale : Verdict::kDenied;
}

}  // namespace qz_rtsp_internal_server

// ---- client ---------------------------------------------------------------------------

namespace qz_rtsp_internal_server {

bool RtspClientAuth::OnChallenges(const std::vector<std::string>& challenges, bool allow_basic) {
  if (user_.empty()) {
    return false;
  }
  // Rank: Digest SHA-256 (2), Digest MD5 (1), Basic (0); -1: none usable.
  int best_rank = -1;
  RtspAuthHeader best;
  RtspAuthenticator::Algorithm best_algorithm = RtspAuthenticator::Algorithm::kMd5;
  for (const std::string& value : challenges) {
    RtspAuthHeader challenge;
    if (!ParseRtspAuth(value, challenge)) {
      continue;
    }
    if (challenge.scheme == RtspAuthHeader::Scheme::kBasic && !allow_basic) {
      continue;
    }
    int rank = 0;
    RtspAuthenticator::Algorithm algorithm = RtspAuthenticator::Algorithm::kMd5;
    if (challenge.scheme == RtspAuthHeader::Scheme::kDigest) {
      if (challenge.Param("nonce") == nullptr || !ParseAlgorithm(challenge, algorithm)) {
        continue;
      }
      const bool sha = algorithm == RtspAuthenticator::Algorithm::kSha256 ||
                       algorithm == RtspAuthenticator::Algorithm::kSha256Sess;
      rank = sha ? 2 : 1;
    }
    if (rank > best_rank) {
      best_rank = rank;
      best = challenge;
      best_algorithm = algorithm;
    }
  }
  if (best_rank < 0) {
    return false;
  }
  const std::string nonce = ParamOf(best, "nonce");
  const bool stale = lex::EqualsNoCase(ParamOf(best, "stale"), "true");
  // Refused with what was sent: a second try with the same credentials
  // would fail again, unless the server only let the nonce age.
  const bool refused_before =
      has_challenge_ && (best_rank == 0 ? basic_ : (!basic_ && nonce == nonce_ && !stale));
  has_challenge_ = true;
  basic_ = best_rank == 0;
  algorithm_ = best_algorithm;
  const std::string* algorithm_name = best.Param("algorithm");
  algorithm_name_ = algorithm_name == nullptr ? std::string() : *algorithm_name;
  realm_ = ParamOf(best, "realm");
  if (nonce != nonce_) {
    nc_ = 0;
  }
  nonce_ = nonce;
  opaque_ = ParamOf(best, "opaque");
  qop_auth_ = false;
  std::vector<std::string> qops;
  if (lex::SplitQuoted(ParamOf(best, "qop"), ',', qops, false)) {
    for (const std::string& qop : qops) {
      qop_auth_ |= lex::EqualsNoCase(lex::Trim(qop), "auth");
    }
  }
  return !refused_before;
}

std::string RtspClientAuth::scheme() const {
  return !has_challenge_ ? std::string() : basic_ ? "Basic" : "Digest";
}

std::string RtspClientAuth::Authorize(const std::string& method, const std::string& uri) {
  if (!has_challenge_) {
    return std::string();
  }
  RtspAuthHeader answer;
  if (basic_) {
    const std::string pair = user_ + ":" + password_;
    answer.scheme = RtspAuthHeader::Scheme::kBasic;
    answer.token =
        qz_utility::Base64Encode(reinterpret_cast<const uint8_t*>(pair.data()), pair.size());
    return WriteRtspAuth(answer);
  }
  std::string nc;
  std::string cnonce;
  if (qop_auth_) {
    char count[9];
    snprintf(count, sizeof(count), "%08x", ++nc_);
    nc = count;
    unsigned char random[8];
    if (RAND_bytes(random, sizeof(random)) != 1) {
      std::random_device device;
      for (unsigned char& byte : random) {
        byte = static_cast<unsigned char>(device());
      }
    }
    cnonce = qz_utility::HexEncode(random, sizeof(random));
  }
  const std::string response =
      RtspAuthenticator::DigestResponse(algorithm_, user_, realm_, password_, method, uri, nonce_,
                                        nc, cnonce, qop_auth_ ? "auth" : "");
  answer.scheme = RtspAuthHeader::Scheme::kDigest;
  answer.params.push_back({"username", user_, true});
  answer.params.push_back({"realm", realm_, true});
  answer.params.push_back({"nonce", nonce_, true});
  answer.params.push_back({"uri", uri, true});
  answer.params.push_back({"response", response, true});
  if (!algorithm_name_.empty()) {
    answer.params.push_back({"algorithm", algorithm_name_, false});
  }
  if (!opaque_.empty()) {
    answer.params.push_back({"opaque", opaque_, true});
  }
  if (qop_auth_) {
    answer.params.push_back({"qop", "auth", false});
    answer.params.push_back({"nc", nc, false});
    answer.params.push_back({"cnonce", cnonce, true});
  }
  return WriteRtspAuth(answer);
}

}  // namespace qz_rtsp_internal_server
