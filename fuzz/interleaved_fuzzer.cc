// The connection byte stream (requests mixed with '$' interleaved frames) fed
// twice: whole, and split at points the input chooses. A parser that depends
// on where reads happen to end would answer differently, so both runs must
// yield the same sequence of requests, frames and errors.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"

namespace {

using qz_rtsp_internal_server::RtspParseResult;
using qz_rtsp_internal_server::RtspRequestParser;

// One parse event, written out so that two runs can be compared.
std::string Describe(const RtspRequestParser& parser, RtspParseResult result) {
  switch (result) {
    case RtspParseResult::kRequest: {
      const auto& r = parser.request();
      std::string out = "R " + r.method + " " + r.uri + " " + r.version;
      for (const auto& h : r.headers) {
        out += "|" + h.first + ":" + h.second;
      }
      return out + "|" + r.body;
    }
    case RtspParseResult::kInterleaved:
      return "$" + std::to_string(parser.channel()) + " " + parser.payload();
    case RtspParseResult::kBadRequest:
      return "bad";
    default:
      return "";
  }
}

// Feeds `data` in pieces whose sizes come from `splits` (cycled); stops at
// the first error, as a connection does.
std::vector<std::string> Run(const std::string& data, const std::vector<size_t>& splits) {
  RtspRequestParser parser;
  std::vector<std::string> events;
  size_t pos = 0;
  size_t k = 0;
  while (pos < data.size()) {
    const size_t n =
        std::min(splits.empty() ? data.size() : splits[k++ % splits.size()], data.size() - pos);
    parser.Feed(data.data() + pos, n);
    pos += n;
    for (;;) {
      const RtspParseResult r = parser.Next();
      if (r == RtspParseResult::kNeedMore) {
        break;
      }
      events.push_back(Describe(parser, r));
      if (r == RtspParseResult::kBadRequest) {
        return events;
      }
    }
  }
  return events;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4 || size > 64 * 1024) {
    return 0;
  }
  // The first four bytes choose the piece sizes (1 to 64 bytes).
  std::vector<size_t> splits;
  for (size_t i = 0; i < 4; ++i) {
    splits.push_back(1 + data[i] % 64);
  }
  const std::string stream(reinterpret_cast<const char*>(data + 4), size - 4);
  if (Run(stream, {}) != Run(stream, splits)) {
    abort();
  }
  return 0;
}
