#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_auth_header.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"

namespace qz_rtsp_internal_server {
namespace {

using Algorithm = RtspAuthenticator::Algorithm;
using Verdict = RtspAuthenticator::Verdict;

// RFC 2617 3.5 (MD5) and RFC 7616 3.9.1 (MD5 and SHA-256); MD5-sess built
// by hand from its definition, HA1 = MD5(MD5(user:realm:pass):nonce:cnonce).
TEST(RtspAuthTest, DigestResponseMatchesKnownVectors) {
  const std::string nonce7616 = "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v";
  const std::string cnonce7616 = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";
  const std::string sess_ha1 =
      RtspAuthenticator::Md5Hex(RtspAuthenticator::Md5Hex("u:r:p") + ":n:c");
  const std::string sess = RtspAuthenticator::Md5Hex(
      sess_ha1 + ":n:00000001:c:auth:" + RtspAuthenticator::Md5Hex("SETUP:rtsp://h/x"));
  const struct {
    Algorithm algorithm;
    const char *user, *realm, *password, *method, *uri, *nonce, *cnonce;
    std::string want;
  } cases[] = {
      {Algorithm::kMd5, "Mufasa", "testrealm@host.com", "Circle Of Life", "GET", "/dir/index.html",
       "dcd98b7102dd2f0e8b11d0f600bfb0c093", "0a4f113b", "6629fae49393a05397450978507c4ef1"},
      {Algorithm::kMd5, "Mufasa", "http-auth@example.org", "Circle of Life", "GET",
       "/dir/index.html", nonce7616.c_str(), cnonce7616.c_str(),
       "8ca523f5e9506fed4657c9700eebdbec"},
      {Algorithm::kSha256, "Mufasa", "http-auth@example.org", "Circle of Life", "GET",
       "/dir/index.html", nonce7616.c_str(), cnonce7616.c_str(),
       "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1"},
      {Algorithm::kMd5Sess, "u", "r", "p", "SETUP", "rtsp://h/x", "n", "c", sess},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(RtspAuthenticator::DigestResponse(c.algorithm, c.user, c.realm, c.password, c.method,
                                                c.uri, c.nonce, "00000001", c.cnonce, "auth"),
              c.want)
        << c.user << " " << c.realm;
  }
}

constexpr const char* kTrack0 = "rtsp://h:8554/live/trackID=0";

// The right answer to `nonce` (user "user", password "secret", realm "qz",
// uri kTrack0, no qop, MD5), changed by `edits`: "field=value" words for
// password, user, uri, realm, nc and label (the algorithm the answer names);
// "qop" answers with qop=auth and nc 00000001; "md5-sess" and "sha256" are
// the algorithm the response is computed with.
std::string Header(const std::string& nonce, const std::string& edits = "") {
  std::map<std::string, std::string> f = {
      {"password", "secret"}, {"user", "user"}, {"uri", kTrack0},
      {"realm", "qz"},        {"nc", ""},       {"label", ""}};
  Algorithm computed = Algorithm::kMd5;
  std::string qop;
  std::istringstream in(edits);
  for (std::string word; in >> word;) {
    const size_t eq = word.find('=');
    if (word == "qop") {
      qop = "auth";
      f["nc"] = "00000001";
    } else if (eq == std::string::npos) {
      computed = word == "sha256" ? Algorithm::kSha256 : Algorithm::kMd5Sess;
    } else {
      f.at(word.substr(0, eq)) = word.substr(eq + 1);
    }
  }
  const std::string cnonce = qop.empty() ? "" : "0a4f113b";
  std::string h =
      "Digest username=\"" + f["user"] + "\", realm=\"" + f["realm"] + "\", nonce=\"" + nonce +
      "\", uri=\"" + f["uri"] + "\", response=\"" +
      RtspAuthenticator::DigestResponse(computed, f["user"], f["realm"], f["password"], "SETUP",
                                        f["uri"], nonce, f["nc"], cnonce, qop) +
      "\"";
  if (!qop.empty()) {
    h += ", qop=" + qop + ", nc=" + f["nc"] + ", cnonce=\"" + cnonce + "\"";
  }
  if (!f["label"].empty()) {
    h += ", algorithm=\"" + f["label"] + "\"";
  }
  return h;
}

RtspRequest Request(const std::string& authorization, const std::string& uri = kTrack0) {
  RtspRequest r;
  r.method = "SETUP";
  r.uri = uri;
  r.version = "RTSP/1.0";
  if (!authorization.empty()) {
    r.headers.emplace_back("Authorization", authorization);
  }
  return r;
}

std::string NonceOf(const std::string& challenge) {
  RtspAuthHeader www;
  EXPECT_TRUE(ParseRtspAuth(challenge, www)) << challenge;
  return www.Param("nonce") == nullptr ? "" : *www.Param("nonce");
}

TEST(RtspAuthTest, Check) {
  RtspAuthenticator digest("user", "secret", "qz", /*allow_basic=*/false, /*lifetime=*/60000);
  RtspAuthenticator basic("user", "secret", "qz", /*allow_basic=*/true);
  RtspAuthenticator off("", "", "qz", false);
  RtspAuthState a;
  RtspAuthState b;
  const std::string nonce = NonceOf(digest.Challenges(a, 1000, false)[0]);
  digest.Challenges(b, 1000, false);  // another connection's nonce
  RtspAuthState unchallenged;
  RtspAuthState rechallenged = a;
  digest.Challenges(rechallenged, 1000 + 30001, false);  // past half its life: a new nonce
  const auto with = [&nonce](const std::string& edits) { return Header(nonce, edits); };
  const struct {
    const char* name;
    RtspAuthenticator& auth;
    const RtspAuthState& state;
    std::string header;
    long long now;
    Verdict want;
    std::string request_uri = kTrack0;
  } cases[] = {
      {"rfc2069_form", digest, a, with(""), 2000, Verdict::kOk},
      {"qop_auth", digest, a, with("qop"), 2000, Verdict::kOk},
      {"md5_sess", digest, a, with("qop md5-sess label=MD5-sess"), 2000, Verdict::kOk},
      {"sha256", digest, a, with("qop sha256 label=SHA-256"), 2000, Verdict::kOk},
      {"md5_labelled_sha256", digest, a, with("label=SHA-256"), 2000, Verdict::kDenied},
      {"sha256_unlabelled", digest, a, with("sha256"), 2000, Verdict::kDenied},
      {"unknown_algorithm", digest, a, with("label=SHA-512-256"), 2000, Verdict::kDenied},
      {"md5_sess_without_cnonce", digest, a, with("md5-sess label=MD5-sess"), 2000,
       Verdict::kDenied},
      {"bad_nc", digest, a, with("qop nc=1"), 2000, Verdict::kDenied},
      // A captured header replayed on a connection of its own.
      {"replay_on_other_connection", digest, b, with(""), 2000, Verdict::kDenied},
      {"replay_on_new_connection", digest, unchallenged, with(""), 2000, Verdict::kDenied},
      {"superseded_nonce", digest, rechallenged, with(""), 31002, Verdict::kDenied},
      // ... or for another resource.
      {"other_track", digest, a, with(""), 2000, Verdict::kDenied, "rtsp://h:8554/live/trackID=1"},
      {"path_only_uri", digest, a, with("uri=/live/trackID=0"), 2000, Verdict::kOk},
      {"other_path", digest, a, with("uri=/live/trackID=1"), 2000, Verdict::kDenied},
      {"expired", digest, a, with(""), 1000 + 60001, Verdict::kStale},
      {"expired_wrong_password", digest, a, with("password=guess"), 1000 + 60001, Verdict::kDenied},
      {"wrong_password", digest, a, with("password=guess"), 2000, Verdict::kDenied},
      {"wrong_user", digest, a, with("user=other"), 2000, Verdict::kDenied},
      {"other_realm", digest, a, with("realm=elsewhere"), 2000, Verdict::kDenied},
      {"no_header", digest, a, "", 2000, Verdict::kDenied},
      {"basic_not_allowed", digest, a, "Basic dXNlcjpzZWNyZXQ=", 2000, Verdict::kDenied},
      {"basic", basic, a, "Basic dXNlcjpzZWNyZXQ=", 0, Verdict::kOk},  // user:secret
      {"basic_wrong_password", basic, a, "Basic dXNlcjpzZWNyZXU=", 0, Verdict::kDenied},
      {"basic_not_base64", basic, a, "Basic !!!", 0, Verdict::kDenied},
      // A long credential once overflowed the decoder's accumulator.
      {"basic_long", basic, a, "Basic " + std::string(400, 'w'), 0, Verdict::kDenied},
      {"off", off, a, "", 0, Verdict::kOk},
  };
  for (const auto& c : cases) {
    RtspAuthState state = c.state;
    EXPECT_EQ(c.auth.Check(Request(c.header, c.request_uri), state, c.now), c.want) << c.name;
  }
}

// With qop=auth each answer for a nonce needs a higher nc than the last
// one accepted; a new nonce (past half the old one's lifetime) starts
// counting again.
TEST(RtspAuthTest, NonceCountMustIncrease) {
  RtspAuthenticator auth("user", "secret", "qz", false, /*lifetime=*/60000);
  RtspAuthState state;
  const struct {
    const char* nc;
    long long now;  // a challenge first at this time, then the answer
    Verdict want;
  } steps[] = {
      {"00000001", 0, Verdict::kOk},         {"00000001", 0, Verdict::kDenied},
      {"00000003", 0, Verdict::kOk},         {"00000002", 0, Verdict::kDenied},
      {"0000000A", 0, Verdict::kOk},         {"00000001", 30000, Verdict::kDenied},
      {"00000001", 30001, Verdict::kOk},     {"ffffffff", 30001, Verdict::kOk},
      {"ffffffff", 30001, Verdict::kDenied},
  };
  for (const auto& s : steps) {
    const std::string answer =
        Header(NonceOf(auth.Challenges(state, s.now, false)[1]), "qop nc=" + std::string(s.nc));
    EXPECT_EQ(auth.Check(Request(answer), state, s.now), s.want) << s.nc << " " << s.now;
  }
}

// Digest with SHA-256, then MD5 (the one clients that read a single
// challenge take: they keep the last), sharing one nonce; stale only when
// asked; Basic last and only when allowed.
TEST(RtspAuthTest, Challenges) {
  for (const bool allow_basic : {false, true}) {
    for (const bool stale : {false, true}) {
      RtspAuthenticator auth("user", "secret", "qz", allow_basic);
      RtspAuthState state;
      const std::vector<std::string> values = auth.Challenges(state, 0, stale);
      const std::string nonce = NonceOf(values[0]);
      std::string all;
      std::string want;
      for (const char* algorithm : {"SHA-256", "MD5"}) {
        want += std::string("Digest realm=\"qz\", qop=\"auth\", algorithm=") + algorithm +
                ", nonce=\"" + nonce + "\"" + (stale ? ", stale=true" : "") + "\n";
      }
      for (const std::string& value : values) {
        all += value + "\n";
      }
      EXPECT_EQ(all, want + (allow_basic ? "Basic realm=\"qz\"\n" : ""));
      EXPECT_EQ(nonce.size(), 32u);
    }
  }
}

// The client's answers, checked by the server's own authenticator: the
// strongest challenge offered is taken (SHA-256, then MD5, Basic only
// alone and when the caller allows it), with and without qop; challenges
// that do not parse are passed over; wrong passwords fail; a nonce refused
// once is not answered again unless it went stale.
TEST(RtspClientAuthTest, AnswersWhatTheServerAccepts) {
  const struct {
    // Of the server's challenges: s(ha), m(d5), b(asic), 2(069: md5, no
    // qop); g: ones that do not parse or name another scheme.
    const char* offered;
    bool allow_basic;
    const char* scheme;     // null: none is answered
    const char* algorithm;  // "" when none is named
  } cases[] = {
      {"smb", true, "Digest", "SHA-256"}, {"mb", true, "Digest", "MD5"},
      {"bm", true, "Digest", "MD5"},      {"b", true, "Basic", ""},
      {"2", true, "Digest", ""},          {"bm", false, "Digest", "MD5"},
      {"b", false, nullptr, ""},          {"g", true, nullptr, ""},
  };
  for (const auto& c : cases) {
    for (const char* password : {"secret", "wrong"}) {
      RtspAuthenticator server("user", "secret", "qz", /*allow_basic=*/true);
      RtspAuthState state;
      const std::vector<std::string> all = server.Challenges(state, 1000, false);
      std::vector<std::string> offered;
      for (const char* k = c.offered; *k != '\0'; ++k) {
        if (*k == 'g') {
          offered.insert(offered.end(), {"Digest realm", "Negotiate abc", "Digest realm=\"x\""});
          continue;
        }
        offered.push_back(*k == 's'   ? all[0]
                          : *k == 'm' ? all[1]
                          : *k == 'b' ? all[2]
                                      : "Digest realm=\"qz\", nonce=\"" + NonceOf(all[1]) + "\"");
      }
      RtspClientAuth client("user", password);
      const bool answered = client.OnChallenges(offered, c.allow_basic);
      ASSERT_EQ(answered, c.scheme != nullptr) << c.offered;
      if (!answered) {
        continue;
      }
      EXPECT_EQ(client.scheme(), c.scheme) << c.offered;
      const std::string answer = client.Authorize("SETUP", kTrack0);
      RtspAuthHeader parsed;
      ASSERT_TRUE(ParseRtspAuth(answer, parsed)) << answer;
      const std::string* algorithm = parsed.Param("algorithm");
      EXPECT_EQ(algorithm == nullptr ? "" : *algorithm, c.algorithm) << answer;
      const bool right = std::string(password) == "secret";
      EXPECT_EQ(server.Check(Request(answer), state, 1000), right ? Verdict::kOk : Verdict::kDenied)
          << c.offered << " " << answer;
      if (right && parsed.Param("qop") != nullptr) {
        // The next request counts on: accepted; the first one replayed is not.
        EXPECT_EQ(server.Check(Request(client.Authorize("SETUP", kTrack0)), state, 1000),
                  Verdict::kOk);
        EXPECT_EQ(server.Check(Request(answer), state, 1000), Verdict::kDenied);
      }
      // Challenged again with the same nonce: the credentials are wrong.
      EXPECT_FALSE(client.OnChallenges(offered, c.allow_basic)) << c.offered;
    }
  }
  // A stale nonce is answered again; nothing is answered without credentials
  // or without a challenge that parses.
  RtspAuthenticator server("user", "secret", "qz", false);
  RtspAuthState state;
  RtspClientAuth client("user", "secret");
  ASSERT_TRUE(client.OnChallenges(server.Challenges(state, 1000, false)));
  EXPECT_TRUE(client.OnChallenges(server.Challenges(state, 1000 + 60001, true)));
  EXPECT_EQ(server.Check(Request(client.Authorize("SETUP", kTrack0)), state, 1000 + 60001),
            Verdict::kOk);
  RtspClientAuth nobody;
  EXPECT_FALSE(nobody.OnChallenges(server.Challenges(state, 1000, false)));
  EXPECT_TRUE(nobody.Authorize("SETUP", kTrack0).empty());
}

}  // namespace
}  // namespace qz_rtsp_internal_server
