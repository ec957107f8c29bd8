#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"

#include <string>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"

namespace qz_rtsp_internal_server {
namespace {

// RFC 2617 section 3.5, the worked example.
TEST(RtspAuthTest, DigestResponseMatchesTheRfcExample) {
  EXPECT_EQ(RtspAuthenticator::DigestResponse(
                "Mufasa", "testrealm@host.com", "Circle Of Life", "GET", "/dir/index.html",
                "dcd98b7102dd2f0e8b11d0f600bfb0c093", "00000001", "0a4f113b", "auth"),
            "6629fae49393a05397450978507c4ef1");
}

RtspRequest WithAuthorization(const std::string& value) {
  RtspRequest r{"DESCRIBE", "rtsp://h/live", "RTSP/1.0", {}, ""};
  if (!value.empty()) {
    r.headers.emplace_back("Authorization", value);
  }
  return r;
}

std::string NonceOf(const std::string& challenge) {
  const size_t at = challenge.find("nonce=\"") + 7;
  return challenge.substr(at, challenge.find('"', at) - at);
}

std::string Digest(const std::string& user,
                   const std::string& password,
                   const std::string& nonce,
                   const std::string& realm = "qz") {
  const std::string response = RtspAuthenticator::DigestResponse(
      user, realm, password, "DESCRIBE", "rtsp://h/live", nonce, "", "", "");
  return "Digest username=\"" + user + "\", realm=\"" + realm + "\", nonce=\"" + nonce +
         "\", uri=\"rtsp://h/live\", response=\"" + response + "\"";
}

TEST(RtspAuthTest, Check) {
  const RtspAuthenticator digest("user", "secret", "qz", /*allow_basic=*/false, /*lifetime=*/60000);
  const RtspAuthenticator basic("user", "secret", "qz", /*allow_basic=*/true);
  const RtspAuthenticator off("", "", "qz", false);
  EXPECT_TRUE(digest.enabled());
  EXPECT_FALSE(off.enabled());
  const std::string nonce = NonceOf(digest.DigestChallenge(1000));
  const std::string forged = "5000" + nonce.substr(nonce.find('.'));  // a later time, same hash
  const struct {
    const char* name;
    const RtspAuthenticator& auth;
    std::string header;
    long long now;
    bool ok;
  } cases[] = {
      {"valid", digest, Digest("user", "secret", nonce), 2000, true},
      {"expired_nonce", digest, Digest("user", "secret", nonce), 1000 + 60001, false},
      {"nonce_from_the_future", digest, Digest("user", "secret", nonce), 500, false},
      {"wrong_password", digest, Digest("user", "guess", nonce), 2000, false},
      {"wrong_user", digest, Digest("other", "secret", nonce), 2000, false},
      {"other_realm", digest, Digest("user", "secret", nonce, "elsewhere"), 2000, false},
      {"forged_nonce_time", digest, Digest("user", "secret", forged), 6000, false},
      {"own_nonce", basic, Digest("user", "secret", NonceOf(basic.DigestChallenge(1000))), 2000,
       true},
      {"other_servers_nonce", basic, Digest("user", "secret", nonce), 2000, false},
      {"no_header", digest, "", 2000, false},
      {"basic_not_allowed", digest, "Basic dXNlcjpzZWNyZXQ=", 2000, false},
      {"basic", basic, "Basic dXNlcjpzZWNyZXQ=", 0, true},                  // user:secret
      {"basic_wrong_password", basic, "Basic dXNlcjpzZWNyZXU=", 0, false},  // user:secreu
      {"basic_not_base64", basic, "Basic !!!", 0, false},
      // A long credential once overflowed the decoder's accumulator.
      {"basic_long", basic, "Basic " + std::string(400, 'w'), 0, false},
      {"off", off, "", 0, true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.auth.Check(WithAuthorization(c.header), c.now), c.ok) << c.name;
  }
}

}  // namespace
}  // namespace qz_rtsp_internal_server
