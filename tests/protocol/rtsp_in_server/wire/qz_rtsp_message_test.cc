#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"

#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

struct RequestCase {
  const char* name;
  std::string bytes;
  RtspParseResult result;
  std::string method, uri, cseq, body;
};

const RequestCase kRequestCases[] = {
    {"options", "OPTIONS rtsp://h/live RTSP/1.0\r\nCSeq: 1\r\n\r\n", RtspParseResult::kRequest,
     "OPTIONS", "rtsp://h/live", "1", ""},
    {"bare_lf_lines", "DESCRIBE /live RTSP/1.0\nCSeq: 7\nAccept: application/sdp\n\n",
     RtspParseResult::kRequest, "DESCRIBE", "/live", "7", ""},
    {"body", "SET_PARAMETER * RTSP/1.0\r\nCSeq: 3\r\nContent-Length: 5\r\n\r\nhello",
     RtspParseResult::kRequest, "SET_PARAMETER", "*", "3", "hello"},
    {"body_not_arrived", "SET_PARAMETER * RTSP/1.0\r\nCSeq: 3\r\nContent-Length: 50\r\n\r\nhel",
     RtspParseResult::kNeedMore, "", "", "", ""},
    {"headers_not_ended", "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n", RtspParseResult::kNeedMore, "", "",
     "", ""},
    {"case_insensitive_header", "OPTIONS * RTSP/1.0\r\ncseq:   9  \r\n\r\n",
     RtspParseResult::kRequest, "OPTIONS", "*", "9", ""},
    {"negative_content_length", "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\nContent-Length: -4\r\n\r\n",
     RtspParseResult::kBadRequest, "", "", "", ""},
    {"huge_content_length", "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\nContent-Length: 99999999999\r\n\r\n",
     RtspParseResult::kBadRequest, "", "", "", ""},
    {"repeated_content_length",
     "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\nx",
     RtspParseResult::kBadRequest, "", "", "", ""},
    {"no_version", "OPTIONS *\r\nCSeq: 1\r\n\r\n", RtspParseResult::kBadRequest, "", "", "", ""},
    {"http_version", "GET / HTTP/1.1\r\nHost: x\r\n\r\n", RtspParseResult::kBadRequest, "", "", "",
     ""},
    {"header_without_colon", "OPTIONS * RTSP/1.0\r\nCSeq 1\r\n\r\n", RtspParseResult::kBadRequest,
     "", "", "", ""},
    {"binary_garbage", std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\r\n\r\n", 14),
     RtspParseResult::kBadRequest, "", "", "", ""},
    {"long_line", "OPTIONS * RTSP/1.0\r\nX: " + std::string(9000, 'a') + "\r\n\r\n",
     RtspParseResult::kBadRequest, "", "", "", ""},
    {"endless_line", std::string(70 * 1024, 'A'), RtspParseResult::kBadRequest, "", "", "", ""},
    {"too_many_headers",
     [] {
       std::string s = "OPTIONS * RTSP/1.0\r\n";
       for (int i = 0; i < 100; ++i)
         s += "X" + std::to_string(i) + ": y\r\n";
       return s + "\r\n";
     }(),
     RtspParseResult::kBadRequest, "", "", "", ""},
};

class RequestParseTest : public ::testing::TestWithParam<RequestCase> {};

TEST_P(RequestParseTest, Parses) {
  const RequestCase& c = GetParam();
  RtspRequestParser parser;
  parser.Feed(c.bytes.data(), c.bytes.size());
  ASSERT_EQ(parser.Next(), c.result) << parser.error();
  if (c.result == RtspParseResult::kRequest) {
    EXPECT_EQ(parser.request().method, c.method);
    EXPECT_EQ(parser.request().uri, c.uri);
    ASSERT_NE(parser.request().Header("CSEQ"), nullptr);
    EXPECT_EQ(*parser.request().Header("CSeq"), c.cseq);
    EXPECT_EQ(parser.request().body, c.body);
  }
}

INSTANTIATE_TEST_SUITE_P(Table,
                         RequestParseTest,
                         ::testing::ValuesIn(kRequestCases),
                         [](const ::testing::TestParamInfo<RequestCase>& info) {
                           return std::string(info.param.name);
                         });

// The same requests, delivered one byte at a time and pipelined, give the
// same results.
TEST(RequestParserTest, ByteAtATimeAndPipelined) {
  const std::string two =
      std::string("OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n") + std::string("$\x01\x00\x03", 4) +
      "abc" + "GET_PARAMETER rtsp://h/live RTSP/1.0\r\nCSeq: 2\r\nContent-Length: 2\r\n\r\nok";
  RtspRequestParser parser;
  std::vector<std::string> seen;
  for (char c : two) {
    parser.Feed(&c, 1);
    for (;;) {
      const RtspParseResult r = parser.Next();
      if (r == RtspParseResult::kNeedMore)
        break;
      ASSERT_NE(r, RtspParseResult::kBadRequest);
      seen.push_back(r == RtspParseResult::kRequest
                         ? parser.request().method + ":" + *parser.request().Header("CSeq")
                         : "$" + std::to_string(parser.channel()) + ":" + parser.payload());
    }
  }
  EXPECT_EQ(seen, std::vector<std::string>({"OPTIONS:1", "$1:abc", "GET_PARAMETER:2"}));
  EXPECT_EQ(parser.buffered(), 0u);

  RtspRequestParser whole;
  whole.Feed(two.data(), two.size());
  EXPECT_EQ(whole.Next(), RtspParseResult::kRequest);
  EXPECT_EQ(whole.Next(), RtspParseResult::kInterleaved);
  EXPECT_EQ(whole.Next(), RtspParseResult::kRequest);
  EXPECT_EQ(whole.Next(), RtspParseResult::kNeedMore);
}

TEST(RequestParserTest, InterleavedFrameOfLengthZeroAndCutFrame) {
  RtspRequestParser parser;
  const std::string frames("$\x05\x00\x00$\x00\x10\x00zz", 10);
  parser.Feed(frames.data(), frames.size());
  ASSERT_EQ(parser.Next(), RtspParseResult::kInterleaved);
  EXPECT_EQ(parser.channel(), 5);
  EXPECT_TRUE(parser.payload().empty());
  EXPECT_EQ(parser.Next(), RtspParseResult::kNeedMore);  // 4096 announced, 2 here
}

TEST(RequestParserTest, StaysFailedAfterABadRequest) {
  RtspRequestParser parser;
  const std::string bad = "BROKEN\r\n\r\n";
  parser.Feed(bad.data(), bad.size());
  EXPECT_EQ(parser.Next(), RtspParseResult::kBadRequest);
  const std::string good = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
  parser.Feed(good.data(), good.size());
  EXPECT_EQ(parser.Next(), RtspParseResult::kBadRequest);
  EXPECT_EQ(parser.buffered(), 0u);  // nothing kept
}

TEST(ResponseWriterTest, GoldenResponse) {
  EXPECT_EQ(
      WriteRtspResponse(200, "4", {{"Session", "AB;timeout=60"}}, "v=0\r\n"),
      "RTSP/1.0 200 OK\r\nCSeq: 4\r\nSession: AB;timeout=60\r\nContent-Length: 5\r\n\r\nv=0\r\n");
  EXPECT_EQ(WriteRtspResponse(454, "", {}), "RTSP/1.0 454 Session Not Found\r\n\r\n");
}

}  // namespace
}  // namespace qz_rtsp_internal_server
