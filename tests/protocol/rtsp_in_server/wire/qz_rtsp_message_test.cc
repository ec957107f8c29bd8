#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

// "OPTIONS * RTSP/1.0" with CSeq 1, then `headers` (each ending in CRLF),
// the blank line and `body`.
std::string Options(const std::string& headers, const std::string& body = "") {
  return "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n" + headers + "\r\n" + body;
}

// Everything complete in what the parser was fed, joined by " | ": a request
// as "METHOD uri cseq body" (the CSeq looked up in another case than it was
// sent in), a response as "status [reason] cseq body", a frame as "$channel
// payload", and "bad" (the last then).
std::string Drain(RtspRequestParser& parser) {
  std::string out;
  for (RtspParseResult result; (result = parser.Next()) != RtspParseResult::kNeedMore;) {
    out += out.empty() ? "" : " | ";
    const RtspRequest& r = parser.request();
    const std::string cseq = r.Header("CSEQ") ? *r.Header("CSEQ") : "-";
    if (result == RtspParseResult::kBadRequest) {
      return out + "bad";
    }
    out += result == RtspParseResult::kInterleaved
               ? "$" + std::to_string(parser.channel()) + " " + parser.payload()
           : result == RtspParseResult::kResponse
               ? std::to_string(r.status) + " [" + r.reason + "] " + cseq + " " + r.body
               : r.method + " " + r.uri + " " + cseq + " " + r.body;
  }
  return out;
}

// Each input fed to a server's parser (requests) and a client's parser
// (responses, and requests a relay sends), whole, a byte at a time and 7
// bytes at a time: the same results, limits included.
TEST(ParserTest, Inputs) {
  std::string many_headers;
  for (int i = 0; i < 100; ++i) {
    many_headers += "X" + std::to_string(i) + ": y\r\n";
  }
  const std::vector<std::pair<std::string, std::string>> requests = {
      {"OPTIONS rtsp://h/live RTSP/1.0\r\nCSeq: 1\r\n\r\n", "OPTIONS rtsp://h/live 1 "},
      {"DESCRIBE /live RTSP/1.0\nCSeq: 7\nAccept: application/sdp\n\n", "DESCRIBE /live 7 "},
      {"OPTIONS * RTSP/1.0\r\ncseq:   9  \r\n\r\n", "OPTIONS * 9 "},
      // Pipelined: requests with and without a body, and a frame between them.
      {Options("") + std::string("$\x01\x00\x03", 4) + "abc" +
           "SET_PARAMETER * RTSP/1.0\r\nCSeq: 3\r\nContent-Length: 5\r\n\r\nhello",
       "OPTIONS * 1  | $1 abc | SET_PARAMETER * 3 hello"},
      // A frame of length 0, then one announcing 4096 bytes with 2 here.
      {std::string("$\x05\x00\x00$\x00\x10\x00zz", 10), "$5 "},
      {Options("Content-Length: 50\r\n", "hel"), ""},  // body not arrived
      {"OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n", ""},       // headers not ended
      {Options("Content-Length: -4\r\n"), "bad"},
      {Options("Content-Length: 99999999999\r\n"), "bad"},
      {Options("Content-Length: 1\r\nContent-Length: 1\r\n", "x"), "bad"},
      {Options("X: " + std::string(9000, 'a') + "\r\n"), "bad"},  // a line over 8 KiB
      {Options(many_headers), "bad"},
      {Options("CSeq 1\r\n"), "bad"},  // no colon
      {"OPTIONS *\r\nCSeq: 1\r\n\r\n", "bad"},
      // A lone CR would come back as a header line of its own in the answer.
      {Options("X: a\rInjected: b\r\n"), "bad"},
      {Options(std::string("X: a\0b\r\n", 8)), "bad"},
      {Options("Transfer-Encoding: chunked\r\n", "5\r\nhello\r\n0\r\n\r\n"), "bad"},
      {"GET / HTTP/1.1\r\nHost: x\r\n\r\n", "bad"},
      {std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\r\n\r\n", 14), "bad"},  // TLS hello
      {std::string(70 * 1024, 'A'), "bad"},           // a line that never ends
      {"RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n", "bad"},  // a server takes no response
  };
  const std::vector<std::pair<std::string, std::string>> responses = {
      {"RTSP/1.0 200 OK\r\nCSeq: 2\r\nContent-Length: 3\r\n\r\nv=0", "200 [OK] 2 v=0"},
      {"RTSP/1.0 455 Method Not Valid in This State\r\nCSeq: 9\r\n\r\n",
       "455 [Method Not Valid in This State] 9 "},
      {"RTSP/1.0 200\r\nCSeq: 3\r\n\r\n", "200 [] 3 "},  // no reason phrase
      // The relay's RTCP, a request of its own and an answer, pipelined.
      {std::string("$\x01\x00\x02rr", 6) + "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n" +
           "RTSP/1.0 401 Unauthorized\r\nCSeq: 4\r\n\r\n",
       "$1 rr | OPTIONS * 1  | 401 [Unauthorized] 4 "},
      {"RTSP/1.0 2000 OK\r\n\r\n", "bad"},
      {"RTSP/1.0 20 OK\r\n\r\n", "bad"},
      {"RTSP/1.0 099 Low\r\n\r\n", "bad"},
      {"RTSP/1.0 abc OK\r\n\r\n", "bad"},
      {"RTSP/1.0\r\n\r\n", "bad"},
      {"HTTP/1.1 200 OK\r\n\r\n", "bad"},
      {"RTSP/1.0 200 OK\r\nContent-Length: 999999999\r\n\r\n", "bad"},
  };
  for (const bool client : {false, true}) {
    for (const auto& c : client ? responses : requests) {
      for (size_t chunk : {c.first.size(), size_t{1}, size_t{7}}) {
        RtspRequestParser parser(RtspLimits(), /*responses=*/client);
        std::string seen;
        for (size_t at = 0; at < c.first.size() && seen.find("bad") == std::string::npos;
             at += chunk) {
          parser.Feed(c.first.data() + at, std::min(chunk, c.first.size() - at));
          const std::string parsed = Drain(parser);
          seen += (seen.empty() || parsed.empty() ? "" : " | ") + parsed;
        }
        EXPECT_EQ(seen, c.second) << c.first.substr(0, 80) << " fed by " << chunk;
      }
    }
  }
}

TEST(RequestParserTest, BufferedAndStaysFailedAfterABadRequest) {
  RtspRequestParser parser;
  const std::string good = Options("");
  const std::string bad = " BROKEN\r\n\r\n";
  parser.Feed(good.data(), good.size());
  parser.Feed(good.data(), 7);
  EXPECT_EQ(Drain(parser), "OPTIONS * 1 ");
  EXPECT_EQ(parser.buffered(), 7u);  // "OPTIONS" of the next one
  parser.Feed(bad.data(), bad.size());
  EXPECT_EQ(Drain(parser), "bad");
  parser.Feed(good.data(), good.size());
  EXPECT_EQ(Drain(parser), "bad");
  EXPECT_EQ(parser.buffered(), 0u);  // nothing kept
}

TEST(WriterTest, GoldenRequestAndResponses) {
  EXPECT_EQ(WriteRtspRequest("ANNOUNCE", "rtsp://h:8554/p", 3,
                             {{"Content-Type", "application/sdp"}}, "v=0\r\n"),
            "ANNOUNCE rtsp://h:8554/p RTSP/1.0\r\nCSeq: 3\r\nContent-Type: application/sdp\r\n"
            "Content-Length: 5\r\n\r\nv=0\r\n");
  EXPECT_EQ(
      WriteRtspResponse(200, "4", {{"Session", "AB;timeout=60"}}, "v=0\r\n"),
      "RTSP/1.0 200 OK\r\nCSeq: 4\r\nSession: AB;timeout=60\r\nContent-Length: 5\r\n\r\nv=0\r\n");
  EXPECT_EQ(WriteRtspResponse(454, "", {}), "RTSP/1.0 454 Session Not Found\r\n\r\n");
}

}  // namespace
}  // namespace qz_rtsp_internal_server
