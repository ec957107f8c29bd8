// Session, RTP-Info, Range and token lists; and every typed header parser
// (Transport and Authorization too) on hostile sizes.
#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"

#include <string>
#include <vector>

#include "tests/protocol/rtsp_in_server/wire/qz_header_rows.h"

namespace qz_rtsp_internal_server {
namespace {

TEST(RtspHeadersTest, Session) {
  CheckHeader<RtspSessionHeader>(
      {
          {"12345678", {"12345678"}},
          {"AB;timeout=60", {"AB", 60}},
          {"Az09$-_.+!*'(),", {"Az09$-_.+!*'(),"}},
          {std::string(255, 'x'), {std::string(255, 'x')}},
      },
      {{" 47112344 ; Timeout = 060 ", "47112344;timeout=60"}},
      {"", " ", "a b", "a\"b", std::string(256, 'x'), ";timeout=5", "a;timeout=", "a;timeout=x",
       "a;timeout=-1", "a;timeout=1;timeout=2", "a;foo=1", "a;timeout=9999999999"},
      ParseRtspSession, WriteRtspSession);
}

TEST(RtspHeadersTest, RtpInfo) {
  CheckHeader<std::vector<RtpInfoEntry>>(
      {
          {"url=rtsp://10.0.0.2:8554/live/trackID=0;seq=10873;rtptime=2426283273,"
           "url=rtsp://10.0.0.2:8554/live/trackID=1;seq=4809;rtptime=1578557208",
           {{"rtsp://10.0.0.2:8554/live/trackID=0", 10873, 2426283273LL},
            {"rtsp://10.0.0.2:8554/live/trackID=1", 4809, 1578557208}}},
          {"url=rtsp://h/t;seq=0;rtptime=4294967295", {{"rtsp://h/t", 0, 4294967295LL}}},
          // ';' and ',' inside urls, when no "seq=", "rtptime=" or "url=" follows.
          {"url=rtsp://h/a;b,c;seq=65535,url=rtsp://h/x?y=1,z=2",
           {{"rtsp://h/a;b,c", 65535}, {"rtsp://h/x?y=1,z=2"}}},
      },
      {{"URL=rtsp://h/t1 ; rtptime=7;seq= 5;x=y, url=rtsp://h/t2;",
        "url=rtsp://h/t1;seq=5;rtptime=7,url=rtsp://h/t2;"}},
      {"", "seq=1", "url=;seq=1", "url=rtsp://h/t;seq=65536", "url=rtsp://h/t;rtptime=4294967296",
       "url=rtsp://h/t;seq=-1", "url=rtsp://h/a b;seq=1", "url=rtsp://h/t;seq=1,junk",
       ",url=rtsp://h/t"},
      ParseRtpInfo, WriteRtpInfo);
}

// A start below 0: now; an end below 0: none.
RtspRange R(double start, double end = -1) {
  return {start < 0, start < 0 ? 0 : start, end >= 0, end < 0 ? 0 : end};
}

TEST(RtspHeadersTest, Range) {
  CheckHeader<RtspRange>(
      {
          {"npt=0.000-", R(0)},  // FFmpeg, GStreamer
          {"npt=now-", R(-1)},
          {"npt=1.500-20.000", R(1.5, 20)},
          {"npt=now-30.000", R(-1, 30)},
          {"npt=3723.250-", R(3723.25)},
      },
      {
          {"npt=0-", "npt=0.000-"},  // live555, ExoPlayer
          {"npt = 1.5 - 20", "npt=1.500-20.000"},
          {"NPT=now-30", "npt=now-30.000"},
          {"npt=01:02:03.25-", "npt=3723.250-"},
          // Rounded half up to whole milliseconds while parsing: as a double,
          // 1.0005 is a hair below, and printf alone would write 1.000.
          {"npt=0.9996-1.0005", "npt=1.000-1.001"},
          {"npt=5.-7.", "npt=5.000-7.000"},
          {"npt=0.000-;time=19970123T143720Z", "npt=0.000-"},
      },
      {"", "npt=", "npt0-", "npt=-20", "npt=abc-", "npt=5", "npt=5-1", "npt=0-now",
       "npt=9999999999.9995-", "npt=1:2:3-", "npt=0:60:00-", "npt=.5-", "npt=1.2.3-",
       "smpte=0:10:00-", "clock=19961108T142300Z-"},
      ParseRtspRange, WriteRtspRange);
}

TEST(RtspHeadersTest, TokenLists) {
  using Tokens = std::vector<std::string>;
  auto parse = [](const std::string& text, Tokens& out) {
    out = ParseRtspTokenList(text);
    return true;
  };
  CheckHeader<Tokens>({{"OPTIONS, DESCRIBE, SETUP", {"OPTIONS", "DESCRIBE", "SETUP"}}, {"", {}}},
                      {{" play.basic ,, com.example.x ,", "play.basic, com.example.x"}}, {}, parse,
                      WriteRtspTokenList);
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
  for (const std::string& text :
       {params, urls, std::string(1 << 20, ','), std::string(1 << 20, '"')}) {
    const auto run = [&text](auto parse, auto value) { return parse(text, value); };
    run(ParseRtspTransport, RtspTransport());
    run(ParseRtspTransports, std::vector<RtspTransport>());
    run(ParseRtspSession, RtspSessionHeader());
    run(ParseRtpInfo, std::vector<RtpInfoEntry>());
    run(ParseRtspRange, RtspRange());
    run(ParseRtspAuth, RtspAuthHeader());
    ParseRtspTokenList(text);
  }
  RtspAuthHeader a;
  ASSERT_TRUE(ParseRtspAuth(params, a));
  EXPECT_EQ(a.params.size(), 50000u);
}

}  // namespace
}  // namespace qz_rtsp_internal_server
