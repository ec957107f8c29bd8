// Typed headers: per header one table of (text, value[, canonical text])
// driving both the parser and the writer, and one of malformed inputs.
#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"

#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

// `written` empty: `text` is canonical and must come back exactly.
template <typename V>
struct Row {
  Row(std::string t, V v, std::string w = "")
      : text(std::move(t)), value(std::move(v)), written(std::move(w)) {}
  std::string text;
  V value;
  std::string written;
};

template <typename V, typename Parse, typename Write>
void CheckRows(const std::vector<Row<V>>& rows, Parse parse, Write write) {
  for (const Row<V>& row : rows) {
    V parsed{};
    ASSERT_TRUE(parse(row.text, parsed)) << row.text;
    EXPECT_TRUE(parsed == row.value) << row.text << " parsed as " << write(parsed);
    EXPECT_EQ(write(row.value), row.written.empty() ? row.text : row.written);
  }
}

template <typename V, typename Parse>
void CheckMalformed(const std::vector<std::string>& inputs, Parse parse) {
  for (const std::string& text : inputs) {
    V parsed{};
    EXPECT_FALSE(parse(text, parsed)) << text;
  }
}

// ---- Transport ------------------------------------------------------------------------

constexpr auto kUdp = RtspTransport::Kind::kUdp;
constexpr auto kTcp = RtspTransport::Kind::kTcp;

TEST(RtspHeadersTest, Transport) {
  // kind, multicast, client_port, server_port, interleaved, has_ssrc, ssrc, mode, destination, ttl
  CheckRows<RtspTransport>(
      {
          {"RTP/AVP;unicast;client_port=5000-5001;server_port=6970-6971;ssrc=0A1B2C3D",
           {kUdp, false, 5000, 5001, 6970, 6971, -1, -1, true, 0x0A1B2C3D, "", "", -1}},
          // FFmpeg, GStreamer, live555 and ExoPlayer over TCP; ExoPlayer over UDP.
          {"RTP/AVP/TCP;unicast;interleaved=0-1",
           {kTcp, false, -1, -1, -1, -1, 0, 1, false, 0, "", "", -1}},
          {"RTP/AVP;unicast;client_port=52618-52619",
           {kUdp, false, 52618, 52619, -1, -1, -1, -1, false, 0, "", "", -1}},
          // FFmpeg publishing; a quoted mode list stays quoted.
          {"RTP/AVP;unicast;client_port=4588-4589;mode=record",
           {kUdp, false, 4588, 4589, -1, -1, -1, -1, false, 0, "record", "", -1}},
          {"RTP/AVP;unicast;client_port=1-2;mode=\"PLAY,RECORD\"",
           {kUdp, false, 1, 2, -1, -1, -1, -1, false, 0, "PLAY,RECORD", "", -1}},
          {"RTP/AVP;multicast;destination=224.2.0.1;ttl=127;server_port=3456-3457",
           {kUdp, true, -1, -1, 3456, 3457, -1, -1, false, 0, "", "224.2.0.1", 127}},
          // Not canonical: GStreamer's quoted mode, single ports, blanks, case, unknowns.
          {"RTP/AVP;unicast;client_port=40202-40203;mode=\"PLAY\"",
           {kUdp, false, 40202, 40203, -1, -1, -1, -1, false, 0, "PLAY", "", -1},
           "RTP/AVP;unicast;client_port=40202-40203;mode=PLAY"},
          {"RTP/AVP/UDP;client_port=5000",
           {kUdp, false, 5000, 5001, -1, -1, -1, -1, false, 0, "", "", -1},
           "RTP/AVP;unicast;client_port=5000-5001"},
          {"rtp/avp/tcp;Unicast;INTERLEAVED=4;mode=receive",
           {kTcp, false, -1, -1, -1, -1, 4, 5, false, 0, "receive", "", -1},
           "RTP/AVP/TCP;unicast;interleaved=4-5;mode=receive"},
          {" RTP/AVP ; unicast ; client_port = 0 - 1 ; x-foo=\"a;b\" ; ssrc=1f ",
           {kUdp, false, 0, 1, -1, -1, -1, -1, true, 0x1F, "", "", -1},
           "RTP/AVP;unicast;client_port=0-1;ssrc=0000001F"},
      },
      ParseRtspTransportSpec, WriteRtspTransport);
  CheckMalformed<RtspTransport>(
      {"", "RTP/SAVP;unicast", "RAW/RAW/UDP;client_port=5000-5001",
       "RTP/AVP;client_port=70000-70001", "RTP/AVP;client_port=65535", "RTP/AVP;client_port=0-0",
       "RTP/AVP;client_port=a-b", "RTP/AVP;client_port=5000-",
       "RTP/AVP;server_port=", "RTP/AVP/TCP;interleaved=255-256", "RTP/AVP/TCP;interleaved=255",
       "RTP/AVP;ssrc=123456789", "RTP/AVP;ssrc=xyz", "RTP/AVP;ttl=256", "RTP/AVP;mode=\"PLAY",
       "RTP/AVP;mode=PL\"AY\"", "RTP/AVP;destination=\"a b\""},
      ParseRtspTransportSpec);
  RtspTransport t;
  for (const char* mode : {"RECORD", "Receive", "PLAY"}) {
    t.mode = mode;
    EXPECT_EQ(t.record(), t.mode != "PLAY") << mode;
  }
}

TEST(RtspHeadersTest, TransportListAndTheSpecServed) {
  std::vector<RtspTransport> list;
  ASSERT_TRUE(ParseRtspTransports("RTP/AVP;multicast, RTP/AVP/TCP;interleaved=0-1,", list));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_TRUE(list[0].multicast);
  EXPECT_EQ(list[1].kind, kTcp);
  EXPECT_FALSE(ParseRtspTransports("RTP/SAVP;unicast,RTP/AVP/TCP", list));
  EXPECT_FALSE(ParseRtspTransports(" , ", list));

  // The first spec this server plays: "" when none qualifies.
  const std::vector<std::pair<std::string, std::string>> served = {
      {"RTP/SAVP;unicast,RTP/AVP/TCP;interleaved=0-1", "RTP/AVP/TCP;unicast;interleaved=0-1"},
      {"RTP/AVP;multicast,RTP/AVP/UDP;unicast;client_port=6970-6971;mode=play",
       "RTP/AVP;unicast;client_port=6970-6971;mode=play"},
      {"RTP/AVP;unicast;client_port=5000-5001;mode=record,RTP/AVP/TCP", "RTP/AVP/TCP;unicast"},
      {"RTP/AVP;unicast;destination=10.1.1.1;client_port=5000-5001",
       "RTP/AVP;unicast;destination=10.1.1.1;client_port=5000-5001"},
      {"RTP/AVP;unicast", ""},
      {"RTP/AVP;unicast;client_port=0", ""},
      {"RTP/AVP/TCP;mode=\"RECORD\"", ""},
      {"RTP/AVP;multicast;client_port=5000-5001", ""},
      {"", ""},
  };
  for (const auto& c : served) {
    RtspTransport t;
    const bool ok = ParseRtspTransport(c.first, t);
    EXPECT_EQ(ok ? WriteRtspTransport(t) : "", c.second) << c.first;
  }
}

// ---- Session, RTP-Info, Range ---------------------------------------------------------

RtspSessionHeader S(const std::string& id, int timeout = -1) {
  RtspSessionHeader s;
  s.id = id;
  s.timeout_s = timeout;
  return s;
}

TEST(RtspHeadersTest, Session) {
  CheckRows<RtspSessionHeader>(
      {
          {"12345678", S("12345678")},
          {"AB;timeout=60", S("AB", 60)},
          {"Az09$-_.+!*'(),", S("Az09$-_.+!*'(),")},
          {std::string(255, 'x'), S(std::string(255, 'x'))},
          {" 47112344 ; Timeout = 060 ", S("47112344", 60), "47112344;timeout=60"},
      },
      ParseRtspSession, WriteRtspSession);
  CheckMalformed<RtspSessionHeader>(
      {"", " ", "a b", "a\"b", std::string(256, 'x'), ";timeout=5", "a;timeout=", "a;timeout=x",
       "a;timeout=-1", "a;timeout=1;timeout=2", "a;foo=1", "a;timeout=9999999999"},
      ParseRtspSession);
}

RtpInfoEntry E(const std::string& url, int seq = -1, long long rtptime = -1) {
  RtpInfoEntry e;
  e.url = url;
  e.seq = seq;
  e.rtptime = rtptime;
  return e;
}

TEST(RtspHeadersTest, RtpInfo) {
  using Entries = std::vector<RtpInfoEntry>;
  CheckRows<Entries>(
      {
          {"url=rtsp://10.0.0.2:8554/live/trackID=0;seq=10873;rtptime=2426283273,"
           "url=rtsp://10.0.0.2:8554/live/trackID=1;seq=4809;rtptime=1578557208",
           {E("rtsp://10.0.0.2:8554/live/trackID=0", 10873, 2426283273LL),
            E("rtsp://10.0.0.2:8554/live/trackID=1", 4809, 1578557208)}},
          {"url=rtsp://h/t;seq=0;rtptime=4294967295", {E("rtsp://h/t", 0, 4294967295LL)}},
          // ';' and ',' inside urls, when no "seq=", "rtptime=" or "url=" follows.
          {"url=rtsp://h/a;b,c;seq=65535,url=rtsp://h/x?y=1,z=2",
           {E("rtsp://h/a;b,c", 65535), E("rtsp://h/x?y=1,z=2")}},
          {"URL=rtsp://h/t1 ; rtptime=7;seq= 5;x=y, url=rtsp://h/t2;",
           {E("rtsp://h/t1", 5, 7), E("rtsp://h/t2;")},
           "url=rtsp://h/t1;seq=5;rtptime=7,url=rtsp://h/t2;"},
      },
      ParseRtpInfo, WriteRtpInfo);
  CheckMalformed<Entries>(
      {"", "seq=1", "url=;seq=1", "url=rtsp://h/t;seq=65536", "url=rtsp://h/t;rtptime=4294967296",
       "url=rtsp://h/t;seq=-1", "url=rtsp://h/a b;seq=1", "url=rtsp://h/t;seq=1,junk",
       ",url=rtsp://h/t"},
      ParseRtpInfo);
}

RtspRange R(double start, double end = -1) {
  RtspRange r;
  r.start_now = start < 0;
  r.start_s = start < 0 ? 0 : start;
  r.has_end = end >= 0;
  r.end_s = end < 0 ? 0 : end;
  return r;
}

TEST(RtspHeadersTest, Range) {
  CheckRows<RtspRange>(
      {
          {"npt=0.000-", R(0)},  // FFmpeg, GStreamer
          {"npt=now-", R(-1)},
          {"npt=1.500-20.000", R(1.5, 20)},
          {"npt=0-", R(0), "npt=0.000-"},  // live555, ExoPlayer
          {"npt = 1.5 - 20", R(1.5, 20), "npt=1.500-20.000"},
          {"NPT=now-30", R(-1, 30), "npt=now-30.000"},
          {"npt=01:02:03.25-", R(3723.25), "npt=3723.250-"},
          {"npt=1.9996-2.", R(2, 2), "npt=2.000-2.000"},
          {"npt=0.000-;time=19970123T143720Z", R(0), "npt=0.000-"},
      },
      ParseRtspRange, WriteRtspRange);
  CheckMalformed<RtspRange>({"", "npt=", "npt0-", "npt=-20", "npt=abc-", "npt=5", "npt=5-1",
                             "npt=0-now", "npt=9999999999.9995-", "npt=1:2:3-", "npt=0:60:00-",
                             "npt=.5-", "npt=1.2.3-", "smpte=0:10:00-", "clock=19961108T142300Z-"},
                            ParseRtspRange);
}

// ---- Authorization / WWW-Authenticate -------------------------------------------------

RtspAuthHeader A(RtspAuthHeader::Scheme scheme,
                 const std::string& token,
                 std::vector<RtspAuthParam> params = {}) {
  RtspAuthHeader a;
  a.scheme = scheme;
  a.token = token;
  a.params = std::move(params);
  return a;
}
constexpr auto kBasic = RtspAuthHeader::Scheme::kBasic;
constexpr auto kDigest = RtspAuthHeader::Scheme::kDigest;

TEST(RtspHeadersTest, Auth) {
  CheckRows<RtspAuthHeader>(
      {
          {"Basic dXNlcjpzZWNyZXQ=", A(kBasic, "dXNlcjpzZWNyZXQ=")},
          {"Basic realm=\"qz\"", A(kBasic, "", {{"realm", "qz", true}})},
          {"Digest realm=\"qz\", nonce=\"1000.0123456789abcdef\"",
           A(kDigest, "", {{"realm", "qz", true}, {"nonce", "1000.0123456789abcdef", true}})},
          // FFmpeg, and live555 (VLC) alike.
          {"Digest username=\"u\", realm=\"r\", nonce=\"n\", uri=\"rtsp://h:8554/live\", "
           "response=\"6629fae49393a05397450978507c4ef1\"",
           A(kDigest, "",
             {{"username", "u"},
              {"realm", "r"},
              {"nonce", "n"},
              {"uri", "rtsp://h:8554/live"},
              {"response", "6629fae49393a05397450978507c4ef1"}})},
          // With qop (RFC 2617 clients, GStreamer): qop and nc as tokens.
          {"Digest username=\"u\", realm=\"r\", nonce=\"n\", uri=\"rtsp://h/live/\", qop=auth, "
           "nc=00000001, cnonce=\"0a4f113b\", response=\"abc\", algorithm=MD5",
           A(kDigest, "",
             {{"username", "u"},
              {"realm", "r"},
              {"nonce", "n"},
              {"uri", "rtsp://h/live/"},
              {"qop", "auth", false},
              {"nc", "00000001", false},
              {"cnonce", "0a4f113b"},
              {"response", "abc"},
              {"algorithm", "MD5", false}})},
          {"Digest a=1, A=\"2\", b=\"x\\\\y\\\"z\", c=\"\"",
           A(kDigest, "", {{"a", "1", false}, {"A", "2"}, {"b", "x\\y\"z"}, {"c", ""}})},
          {"Digest", A(kDigest, "")},
          {" BASIC  dXNlcjpzZWNyZXQ=  ", A(kBasic, "dXNlcjpzZWNyZXQ="), "Basic dXNlcjpzZWNyZXQ="},
          {"digest ,username = \"a\\b\" ,realm=r,, ",
           A(kDigest, "", {{"username", "ab"}, {"realm", "r", false}}),
           "Digest username=\"ab\", realm=r"},
      },
      ParseRtspAuth, WriteRtspAuth);
  CheckMalformed<RtspAuthHeader>(
      {"", "Bearer abc", "Basic !!!", "Basic a b", "Digestusername=\"u\"", "Digest username=\"u",
       "Digest username", "Digest =x", "Digest a=1 b=2", "Digest a==x", "Digest a=\"x\\",
       "Digest a=\"\x01\"", "Digest a=b\"c\"", "Digest a=\"b\"c"},
      ParseRtspAuth);
  RtspAuthHeader auth;
  ASSERT_TRUE(ParseRtspAuth("Digest Realm=\"first\", realm=\"second\"", auth));
  ASSERT_NE(auth.Param("REALM"), nullptr);
  EXPECT_EQ(*auth.Param("REALM"), "first");
  EXPECT_EQ(auth.Param("nonce"), nullptr);
}

// ---- Token lists ----------------------------------------------------------------------

TEST(RtspHeadersTest, TokenLists) {
  using Tokens = std::vector<std::string>;
  auto parse = [](const std::string& text, Tokens& out) {
    out = ParseRtspTokenList(text);
    return true;
  };
  CheckRows<Tokens>(
      {
          {"OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN",
           {"OPTIONS", "DESCRIBE", "SETUP", "PLAY", "TEARDOWN"}},
          {"play.basic", {"play.basic"}},
          {"", {}},
          {" play.basic ,, com.example.x ,",
           {"play.basic", "com.example.x"},
           "play.basic, com.example.x"},
      },
      parse, WriteRtspTokenList);
}

// Hostile sizes: every parser's work stays linear (a quadratic loop would
// take minutes here).
TEST(RtspHeadersTest, LongInputsAreCheap) {
  std::string params = "Digest ";
  std::string urls;
  for (int i = 0; i < 50000; ++i) {
    params += "a=\"\\\"\", ";
    urls += "url=x;;;;,";
  }
  const std::string commas(1 << 20, ',');
  const std::string quotes(1 << 20, '"');
  for (const std::string* text :
       std::vector<const std::string*>{&params, &urls, &commas, &quotes}) {
    RtspTransport t;
    std::vector<RtspTransport> ts;
    RtspSessionHeader s;
    std::vector<RtpInfoEntry> e;
    RtspRange r;
    RtspAuthHeader a;
    ParseRtspTransport(*text, t);
    ParseRtspTransports(*text, ts);
    ParseRtspSession(*text, s);
    ParseRtpInfo(*text, e);
    ParseRtspRange(*text, r);
    ParseRtspAuth(*text, a);
    ParseRtspTokenList(*text);
  }
  RtspAuthHeader a;
  ASSERT_TRUE(ParseRtspAuth(params, a));
  EXPECT_EQ(a.params.size(), 50000u);
}

}  // namespace
}  // namespace qz_rtsp_internal_server
