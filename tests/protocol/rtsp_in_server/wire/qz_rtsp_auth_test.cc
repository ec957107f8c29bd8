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
  RtspRequest r;
  r.method = "DESCRIBE";
  r.uri = "rtsp://h/live";
  r.version = "RTSP/1.0";
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

TEST(RtspAuthTest, DigestCredentialsNonceLifetimeAndForgery) {
  RtspAuthenticator auth("user", "secret", "qz", /*allow_basic=*/false, /*lifetime=*/60000);
  const std::string nonce = NonceOf(auth.DigestChallenge(1000));
  struct {
    const char* name;
    std::string header;
    long long now;
    bool ok;
  } cases[] = {
      {"valid", Digest("user", "secret", nonce), 2000, true},
      {"expired_nonce", Digest("user", "secret", nonce), 1000 + 60001, false},
      {"nonce_from_the_future", Digest("user", "secret", nonce), 500, false},
      {"wrong_password", Digest("user", "guess", nonce), 2000, false},
      {"wrong_user", Digest("other", "secret", nonce), 2000, false},
      {"other_realm", Digest("user", "secret", nonce, "elsewhere"), 2000, false},
      {"forged_nonce_time", Digest("user", "secret", "5000" + nonce.substr(nonce.find('.'))), 6000,
       false},
      {"no_header", "", 2000, false},
      {"basic_not_allowed", "Basic dXNlcjpzZWNyZXQ=", 2000, false},
      {"unknown_scheme", "Bearer abc", 2000, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(auth.Check(WithAuthorization(c.header), c.now), c.ok) << c.name;
  }
}

TEST(RtspAuthTest, BasicOnlyWhenAllowedAndOffWithoutUser) {
  RtspAuthenticator basic("user", "secret", "qz", /*allow_basic=*/true);
  EXPECT_TRUE(basic.Check(WithAuthorization("Basic dXNlcjpzZWNyZXQ="), 0));   // user:secret
  EXPECT_FALSE(basic.Check(WithAuthorization("Basic dXNlcjpzZWNyZXU="), 0));  // user:secreu
  EXPECT_FALSE(basic.Check(WithAuthorization("Basic !!!"), 0));
  // Regression: a long credential overflowed the decoder's accumulator.
  EXPECT_FALSE(basic.Check(WithAuthorization("Basic " + std::string(400, 'w')), 0));
  RtspAuthenticator off("", "", "qz", false);
  EXPECT_FALSE(off.enabled());
  EXPECT_TRUE(off.Check(WithAuthorization(""), 0));
}

}  // namespace
}  // namespace qz_rtsp_internal_server
