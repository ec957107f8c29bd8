#include "protocol/rtsp_in_server/wire/qz_rtsp_auth_header.h"

#include <string>
#include <vector>

#include "tests/protocol/rtsp_in_server/wire/qz_header_rows.h"

namespace qz_rtsp_internal_server {
namespace {

constexpr auto kBasic = RtspAuthHeader::Scheme::kBasic;
constexpr auto kDigest = RtspAuthHeader::Scheme::kDigest;

TEST(RtspAuthHeaderTest, ParseAndWrite) {
  // scheme, token, params (name, value, quoted: true unless given)
  CheckHeader<RtspAuthHeader>(
      {
          {"Basic dXNlcjpzZWNyZXQ=", {kBasic, "dXNlcjpzZWNyZXQ=", {}}},
          {"Basic realm=\"qz\"", {kBasic, "", {{"realm", "qz"}}}},
          {"Digest realm=\"qz\", nonce=\"1000.0123456789abcdef\"",
           {kDigest, "", {{"realm", "qz"}, {"nonce", "1000.0123456789abcdef"}}}},
          // RFC 2617 clients and GStreamer: qop, nc and algorithm as tokens. FFmpeg
          // and live555 send the same without those three and cnonce.
          {"Digest username=\"u\", realm=\"r\", nonce=\"n\", uri=\"rtsp://h/live/\", qop=auth, "
           "nc=00000001, cnonce=\"0a4f113b\", response=\"abc\", algorithm=MD5",
           // clang-format off
           {kDigest, "", {{"username", "u"}, {"realm", "r"}, {"nonce", "n"}, {"uri", "rtsp://h/live/"},
                          {"qop", "auth", false}, {"nc", "00000001", false}, {"cnonce", "0a4f113b"},
                          {"response", "abc"}, {"algorithm", "MD5", false}}}},
          // clang-format on
          // Escapes, an empty quoted value, names apart only in case.
          {"Digest a=1, A=\"2\", b=\"x\\\\y\\\"z\", c=\"\"",
           {kDigest, "", {{"a", "1", false}, {"A", "2"}, {"b", "x\\y\"z"}, {"c", ""}}}},
          {"Digest", {kDigest, "", {}}},
      },
      {
          {" BASIC  dXNlcjpzZWNyZXQ=  ", "Basic dXNlcjpzZWNyZXQ="},
          {"digest ,username = \"a\\b\" ,realm=r,, ", "Digest username=\"ab\", realm=r"},
      },
      {"", "Bearer abc", "Basic !!!", "Basic a b", "Digestusername=\"u\"", "Digest username=\"u",
       "Digest username", "Digest =x", "Digest a=1 b=2", "Digest a==x", "Digest a=\"x\\",
       "Digest a=\"\x01\"", "Digest a=b\"c\"", "Digest a=\"b\"c"},
      ParseRtspAuth, WriteRtspAuth);
  // A value that cannot stand unquoted is quoted whatever the caller asked.
  EXPECT_EQ(WriteRtspAuth({kDigest, "", {{"a", "", false}, {"b", "x y", false}}}),
            "Digest a=\"\", b=\"x y\"");
  RtspAuthHeader auth;
  ASSERT_TRUE(ParseRtspAuth("Digest Realm=\"first\", realm=\"second\"", auth));
  ASSERT_NE(auth.Param("REALM"), nullptr);
  EXPECT_EQ(*auth.Param("REALM"), "first");
  EXPECT_EQ(auth.Param("nonce"), nullptr);
}

}  // namespace
}  // namespace qz_rtsp_internal_server
