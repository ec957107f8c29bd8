// The RTSP request parser fed in chunks chosen by the input, the Transport
// header parser on every header value, and the Digest check on every
// request (whose nonce no input can know: it must never pass): bounded
// memory, no crash.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 128 * 1024) {
    return 0;
  }
  using namespace qz_rtsp_internal_server;  // NOLINT
  static RtspAuthenticator auth("user", "secret", "qz", /*allow_basic=*/false);
  RtspAuthState state;
  auth.Challenges(state, 1000, false);
  const size_t chunk = 1 + data[0] % 64;
  RtspRequestParser parser;
  size_t pos = 1;
  while (pos < size) {
    const size_t n = std::min(chunk, size - pos);
    parser.Feed(reinterpret_cast<const char*>(data + pos), n);
    pos += n;
    for (;;) {
      const RtspParseResult r = parser.Next();
      if (r == RtspParseResult::kNeedMore || r == RtspParseResult::kBadRequest) {
        break;
      }
      if (r == RtspParseResult::kRequest) {
        if (auth.Check(parser.request(), state, 2000) == RtspAuthenticator::Verdict::kOk) {
          abort();
        }
        for (const auto& header : parser.request().headers) {
          RtspTransport transport;
          if (ParseRtspTransport(header.second, transport)) {
            // Absent ports are -1 now: a served UDP spec has both, above 0.
            if (transport.kind == RtspTransport::Kind::kUdp &&
                (transport.client_rtp_port <= 0 || transport.client_rtp_port > 65535 ||
                 transport.client_rtcp_port <= 0 || transport.client_rtcp_port > 65535)) {
              abort();
            }
          }
        }
      }
    }
    // Never holds more than the header limit plus one body.
    if (parser.buffered() > 64 * 1024 + 64 * 1024 + chunk) {
      abort();
    }
  }
  return 0;
}
