// An HTTP tunnel's half as its connection reads it, in chunks chosen by the
// input: the first bytes sniffed, the HTTP head parsed within its bound,
// the body base64-decoded into the RTSP request parser. Checked: no crash,
// bounded memory, at most three bytes out for every four characters in,
// and the same bytes (and the same verdict) whether the body was decoded
// whole or in chunks.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_tunnel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 128 * 1024) {
    return 0;
  }
  using namespace qz_rtsp_internal_server;  // NOLINT
  constexpr size_t kMaxHead = 4096;
  const size_t chunk = 1 + data[0] % 64;
  const char* text = reinterpret_cast<const char*>(data + 1);
  const size_t length = size - 1;
  if (SniffTunnel(text, length) != TunnelSniff::kHttp) {
    return 0;
  }
  HttpTunnelHeadParser head(kMaxHead);
  size_t pos = 0;
  HttpTunnelHeadParser::Result result = HttpTunnelHeadParser::Result::kNeedMore;
  while (pos < length && result == HttpTunnelHeadParser::Result::kNeedMore) {
    const size_t n = std::min(chunk, length - pos);
    result = head.Feed(text + pos, n);
    pos += n;
  }
  if (result != HttpTunnelHeadParser::Result::kDone) {
    // Headers that never end fail once the bound is reached.
    if (result == HttpTunnelHeadParser::Result::kNeedMore && length >= kMaxHead + chunk) {
      abort();
    }
    return 0;
  }
  const HttpTunnelHead& h = head.head();
  if (h.cookie.empty() || h.cookie.size() > 128 || h.path.empty()) {
    abort();
  }
  const std::string body = head.rest() + std::string(text + pos, length - pos);
  Base64StreamDecoder whole;
  std::string expected;
  const bool whole_good = whole.Decode(body.data(), body.size(), expected);
  if (expected.size() > body.size() * 3 / 4 + 2) {
    abort();
  }
  Base64StreamDecoder pieces;
  std::string decoded;
  RtspRequestParser parser;
  bool good = true;
  for (size_t i = 0; i < body.size() && good; i += chunk) {
    std::string out;
    good = pieces.Decode(body.data() + i, std::min(chunk, body.size() - i), out);
    decoded += out;
    parser.Feed(out.data(), out.size());
    for (RtspParseResult r = parser.Next();
         r != RtspParseResult::kNeedMore && r != RtspParseResult::kBadRequest; r = parser.Next()) {
    }
    if (parser.buffered() > 64 * 1024 + 64 * 1024 + chunk) {
      abort();
    }
  }
  if (good != whole_good || decoded != expected) {
    abort();
  }
  return 0;
}
