#include "protocol/rtsp_in_server/wire/qz_rtsp_tunnel.h"

#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

TEST(TunnelTest, FirstBytesTellAnHttpHalfFromRtsp) {
  const std::pair<std::string, TunnelSniff> cases[] = {
      {"", TunnelSniff::kNeedMore},          {"G", TunnelSniff::kNeedMore},
      {"GET", TunnelSniff::kNeedMore},       {"POST", TunnelSniff::kNeedMore},
      {"GET ", TunnelSniff::kHttp},          {"POST /live HTTP/1.0", TunnelSniff::kHttp},
      {"GET_PARAMETER", TunnelSniff::kRtsp}, {"PLAY", TunnelSniff::kRtsp},
      {"OPTIONS", TunnelSniff::kRtsp},       {std::string("$\0", 2), TunnelSniff::kRtsp},
      {"get ", TunnelSniff::kRtsp},  // HTTP methods are case-sensitive
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SniffTunnel(c.first.data(), c.first.size()), c.second) << c.first;
  }
}

// What the parser made of `input` fed in pieces of `chunk` bytes until it
// decided: "GET|POST path cookie | body" (the body: its rest() and the
// pieces not fed), "more" or "bad".
std::string ParseHead(const std::string& input, size_t chunk, size_t max_bytes) {
  HttpTunnelHeadParser parser(max_bytes);
  HttpTunnelHeadParser::Result result = HttpTunnelHeadParser::Result::kNeedMore;
  size_t fed = 0;
  while (fed < input.size() && result == HttpTunnelHeadParser::Result::kNeedMore) {
    const size_t n = std::min(chunk, input.size() - fed);
    result = parser.Feed(input.data() + fed, n);
    fed += n;
  }
  if (result == HttpTunnelHeadParser::Result::kNeedMore) {
    return "more";
  }
  if (result == HttpTunnelHeadParser::Result::kBad) {
    return "bad";
  }
  const HttpTunnelHead& h = parser.head();
  return std::string(h.post ? "POST " : "GET ") + h.path + " " + h.cookie + " | " + parser.rest() +
         input.substr(fed);
}

// Each head fed whole, a byte at a time and 7 bytes at a time: the same
// result, the limit of 256 bytes included.
TEST(TunnelTest, HttpHeadsOfBothHalves) {
  const std::string cookie = "x-sessioncookie: c\r\n";
  // A head of exactly `size` bytes, blank line included.
  auto head_of = [&](size_t size) {
    const std::string start = "GET / HTTP/1.0\r\n" + cookie + "X: ";
    return start + std::string(size - start.size() - 4, 'a') + "\r\n\r\n";
  };
  const std::pair<std::string, std::string> cases[] = {
      // FFmpeg's GET (HTTP/1.1) and GStreamer's POST (HTTP/1.0) with the
      // start of its body in the same read.
      {"GET /live HTTP/1.1\r\nUser-Agent: Lavf\r\nAccept: */*\r\n"
       "x-sessioncookie: 0a1b2c3d4e5f6071\r\nPragma: no-cache\r\n\r\n",
       "GET /live 0a1b2c3d4e5f6071 | "},
      {"POST /live HTTP/1.0\r\nX-SessionCookie: abcdefghijklmnopqrstuvw\r\n"
       "Content-Length: 32767\r\n\r\nT1BUSU9OUw==",
       "POST /live abcdefghijklmnopqrstuvw | T1BUSU9OUw=="},
      {"GET / HTTP/1.0\nx-sessioncookie:  k+/=  \n\nrest", "GET / k+/= | rest"},
      {"GET / HTTP/1.0\r\n" + cookie, "more"},  // headers not ended yet
      {head_of(256), "GET / c | "},
      {head_of(257), "bad"},
      {"GET / HTTP/1.0\r\nX: " + std::string(300, 'a'), "bad"},  // headers that never end
      {"GET / HTTP/1.0\r\nAccept: x\r\n\r\n", "bad"},            // no cookie
      {"GET / HTTP/1.0\r\n" + cookie + cookie + "\r\n", "bad"},
      {"GET / HTTP/1.0\r\nx-sessioncookie: \r\n\r\n", "bad"},
      {"GET / HTTP/1.0\r\nx-sessioncookie: a b\r\n\r\n", "bad"},
      {"GET / HTTP/1.0\r\nx-sessioncookie: " + std::string(129, 'c') + "\r\n\r\n", "bad"},
      {"GET / HTTP/1.0\r\n" + cookie + "X: a\x01" + "b\r\n\r\n", "bad"},
      {"GET / RTSP/1.0\r\n" + cookie + "\r\n", "bad"},
      {"GET /\r\n" + cookie + "\r\n", "bad"},
      {"GET / HTTP/1.0\r\nno colon\r\n" + cookie + "\r\n", "bad"},
  };
  for (const auto& c : cases) {
    for (size_t chunk : {c.first.size(), size_t{1}, size_t{7}}) {
      EXPECT_EQ(ParseHead(c.first, chunk, 256), c.second) << c.first << " in pieces of " << chunk;
    }
  }
}

// Each input decoded whole, a character at a time and 3 at a time: the
// same bytes; "bad" when the decoder refuses it.
TEST(TunnelTest, Base64IsDecodedAcrossReads) {
  const std::pair<std::string, std::string> cases[] = {
      {"T1BUSU9OUw==", "OPTIONS"},
      {"T1BU\r\nSU9O\tUw =\n=", "OPTIONS"},
      // Messages encoded one by one, each with its padding.
      {"YQ==YWI=YWJj",
       "aab"
       "abc"},
      {"JAEAAv/+", std::string("$\x01\x00\x02\xff\xfe", 6)},
      {"YW", "a"},  // a byte is out as soon as its bits are
      {"", ""},
      {"YQ=a", "bad"},  // the second '=' missing
      {"Y===", "bad"},
      {"=", "bad"},
      {"YWJj=", "bad"},
      {"YW*j", "bad"},
      {"YWJj-_", "bad"},  // the URL-safe alphabet is not this one
      // Refused once, it decodes nothing more (fed by 1 or 3, the good
      // pieces after '@' must be refused too).
      {"@YWJj", "bad"},
  };
  for (const auto& c : cases) {
    for (size_t chunk : {c.first.size(), size_t{1}, size_t{3}}) {
      Base64StreamDecoder decoder;
      std::string out;
      bool good = true;
      for (size_t i = 0; i < c.first.size(); i += chunk) {
        good = decoder.Decode(c.first.data() + i, std::min(chunk, c.first.size() - i), out);
      }
      EXPECT_EQ(good ? out : "bad", c.second) << c.first << " in pieces of " << chunk;
      EXPECT_EQ(decoder.failed(), !good);
    }
  }
}

}  // namespace
}  // namespace qz_rtsp_internal_server
