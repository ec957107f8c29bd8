#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdlib>

#include "protocol/rtsp_in_server/wire/qz_rtsp_auth_header.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"
#include "utility/qz_base64.h"

namespace qz_rtsp_internal_server {
namespace {

bool ConstantTimeEqual(const std::string& a, const std::string& b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

// A parameter's value, empty when absent.
std::string ParamOf(const RtspAuthHeader& auth, const char* name) {
  const std::string* value = auth.Param(name);
  return value == nullptr ? std::string() : *value;
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
  unsigned char key[16] = {0};
  RAND_bytes(key, sizeof(key));
  key_.assign(reinterpret_cast<const char*>(key), sizeof(key));
}

std::string RtspAuthenticator::Md5Hex(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(text.data(), text.size(), digest, &size, EVP_md5(), nullptr);
  return qz_utility::HexEncode(digest, size);
}

std::string RtspAuthenticator::DigestResponse(const std::string& user,
                                              const std::string& realm,
                                              const std::string& password,
                                              const std::string& method,
                                              const std::string& uri,
                                              const std::string& nonce,
                                              const std::string& nc,
                                              const std::string& cnonce,
                                              const std::string& qop) {
  const std::string ha1 = Md5Hex(user + ":" + realm + ":" + password);
  const std::string ha2 = Md5Hex(method + ":" + uri);
  if (qop.empty()) {
    return Md5Hex(ha1 + ":" + nonce + ":" + ha2);
  }
  return Md5Hex(ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":" + qop + ":" + ha2);
}

std::string RtspAuthenticator::MakeNonce(long long now_ms) const {
  const std::string stamp = std::to_string(now_ms);
  return stamp + "." + Md5Hex(key_ + stamp).substr(0, 16);
}

bool RtspAuthenticator::NonceValid(const std::string& nonce, long long now_ms) const {
  const size_t dot = nonce.find('.');
  if (dot == std::string::npos || dot == 0 || dot > 19 ||
      nonce.find_first_not_of("0123456789") != dot) {
    return false;
  }
  const std::string stamp = nonce.substr(0, dot);
  const long long made = std::atoll(stamp.c_str());
  if (now_ms < made || now_ms - made > nonce_lifetime_ms_) {
    return false;  // expired (or from the future)
  }
  return ConstantTimeEqual(nonce, MakeNonce(made));
}

std::string RtspAuthenticator::DigestChallenge(long long now_ms) const {
  RtspAuthHeader challenge;
  challenge.scheme = RtspAuthHeader::Scheme::kDigest;
  challenge.params = {{"realm", realm_, true}, {"nonce", MakeNonce(now_ms), true}};
  return WriteRtspAuth(challenge);
}

std::string RtspAuthenticator::BasicChallenge() const {
  RtspAuthHeader challenge;
  challenge.scheme = RtspAuthHeader::Scheme::kBasic;
  challenge.params = {{"realm", realm_, true}};
  return WriteRtspAuth(challenge);
}

bool RtspAuthenticator::Check(const RtspRequest& request, long long now_ms) const {
  if (!enabled()) {
    return true;
  }
  const std::string* header = request.Header("Authorization");
  RtspAuthHeader auth;
  if (header == nullptr || !ParseRtspAuth(*header, auth)) {
    return false;
  }
  if (auth.scheme == RtspAuthHeader::Scheme::kDigest) {
    const std::string nonce = ParamOf(auth, "nonce");
    const std::string uri = ParamOf(auth, "uri");
    if (!ConstantTimeEqual(ParamOf(auth, "username"), user_) || ParamOf(auth, "realm") != realm_ ||
        !NonceValid(nonce, now_ms) || uri.empty()) {
      return false;
    }
    const std::string qop = ParamOf(auth, "qop");
    if (!qop.empty() && qop != "auth") {
      return false;
    }
    const std::string expected =
        DigestResponse(user_, realm_, password_, request.method, uri, nonce, ParamOf(auth, "nc"),
                       ParamOf(auth, "cnonce"), qop);
    return ConstantTimeEqual(ParamOf(auth, "response"), expected);
  }
  if (allow_basic_ && auth.scheme == RtspAuthHeader::Scheme::kBasic) {
    std::string decoded;
    if (auth.token.empty() || !qz_utility::Base64Decode(auth.token, decoded)) {
      return false;
    }
    return ConstantTimeEqual(decoded, user_ + ":" + password_);
  }
  return false;
}

}  // namespace qz_rtsp_internal_server
