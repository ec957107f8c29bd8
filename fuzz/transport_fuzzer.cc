// The Transport header parser on arbitrary text: whatever it accepts must be
// something the server can use as it stands (ports and channels in range).
#include <cstdint>
#include <cstdlib>
#include <string>

#include "protocol/rtsp_in_server/qz_rtsp_transport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using qz_rtsp_internal_server::ParseRtspTransport;
  using qz_rtsp_internal_server::RtspTransport;
  if (size > 16 * 1024) {
    return 0;
  }
  RtspTransport t;
  if (!ParseRtspTransport(std::string(reinterpret_cast<const char*>(data), size), t)) {
    return 0;
  }
  if (t.multicast) {
    abort();  // only unicast is served
  }
  if (t.kind == RtspTransport::Kind::kUdp) {
    if (t.client_rtp_port < 1 || t.client_rtp_port > 65535 || t.client_rtcp_port < 1 ||
        t.client_rtcp_port > 65535) {
      abort();
    }
  } else {
    const bool none = t.interleaved_rtp == -1 && t.interleaved_rtcp == -1;
    const bool valid = t.interleaved_rtp >= 0 && t.interleaved_rtp <= 255 &&
                       t.interleaved_rtcp >= 0 && t.interleaved_rtcp <= 255;
    if (!none && !valid) {
      abort();
    }
  }
  return 0;
}
