#include "protocol/rtsp_in_server/qz_rtsp_auth.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <strings.h>

#include <cstdlib>
#include <map>

#include "protocol/rtsp_in_server/qz_rtsp_message.h"
#include "utility/qz_base64.h"

namespace qz_rtsp_internal_server {
namespace {

bool ConstantTimeEqual(const std::string& a, const std::string& b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

// The name="value" and name=token pairs of a Digest Authorization header.
std::map<std::string, std::string> ParseParams(const std::string& text) {
  std::map<std::string, std::string> params;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == ','))
      ++i;
    const size_t eq = text.find('=', i);
    if (eq == std::string::npos)
      break;
    std::string name = text.substr(i, eq - i);
    while (!name.empty() && name.back() == ' ')
      name.pop_back();
    i = eq + 1;
    std::string value;
    if (i < text.size() && text[i] == '"') {
      const size_t close = text.find('"', i + 1);
      if (close == std::string::npos)
        break;
      value = text.substr(i + 1, close - i - 1);
      i = close + 1;
    } else {
      const size_t comma = text.find(',', i);
      value = text.substr(i, comma == std::string::npos ? std::string::npos : comma - i);
      i = comma == std::string::npos ? text.size() : comma;
    }
    for (char& c : name)
      c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    params[name] = value;
  }
  return params;
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
  return "Digest realm=\"" + realm_ + "\", nonce=\"" + MakeNonce(now_ms) + "\"";
}

std::string RtspAuthenticator::BasicChallenge() const {
  return "Basic realm=\"" + realm_ + "\"";
}

bool RtspAuthenticator::Check(const RtspRequest& request, long long now_ms) const {
  if (!enabled()) {
    return true;
  }
  const std::string* header = request.Header("Authorization");
  if (header == nullptr) {
    return false;
  }
  if (strncasecmp(header->c_str(), "Digest ", 7) == 0) {
    auto p = ParseParams(header->substr(7));
    if (!ConstantTimeEqual(p["username"], user_) || p["realm"] != realm_ ||
        !NonceValid(p["nonce"], now_ms) || p["uri"].empty()) {
      return false;
    }
    const std::string qop = p["qop"];
    if (!qop.empty() && qop != "auth") {
      return false;
    }
    const std::string expected = DigestResponse(user_, realm_, password_, request.method, p["uri"],
                                                p["nonce"], p["nc"], p["cnonce"], qop);
    return ConstantTimeEqual(p["response"], expected);
  }
  if (allow_basic_ && strncasecmp(header->c_str(), "Basic ", 6) == 0) {
    std::string decoded;
    if (!qz_utility::Base64Decode(header->substr(6), decoded)) {
      return false;
    }
    return ConstantTimeEqual(decoded, user_ + ":" + password_);
  }
  return false;
}

}  // namespace qz_rtsp_internal_server
