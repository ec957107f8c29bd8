// Every typed header parser on arbitrary text (the target keeps its old
// name): whatever a parser accepts, its writer must write as text that the
// parser reads back as the same value. The Transport spec the server would
// serve must also be usable as it stands (unicast, play, ports and channels
// in range; with multicast served, a multicast transport over UDP to play).
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"

namespace {

using namespace qz_rtsp_internal_server;  // NOLINT

// Parses `text`; when it parses, writes the value, parses that and compares.
template <typename V, typename Parse, typename Write>
void RoundTrip(const std::string& text, Parse parse, Write write) {
  V first{};
  if (!parse(text, first)) {
    return;
  }
  V second{};
  if (!parse(write(first), second) || !(first == second)) {
    abort();
  }
}

std::string WriteTransports(const std::vector<RtspTransport>& transports) {
  std::string out;
  for (const RtspTransport& t : transports) {
    out += (out.empty() ? "" : ",") + WriteRtspTransport(t);
  }
  return out;
}

bool ParseTokens(const std::string& text, std::vector<std::string>& tokens) {
  tokens = ParseRtspTokenList(text);
  return true;
}

void CheckServed(const std::string& text, bool multicast) {
  RtspTransport t;
  const auto parse = multicast ? ParseRtspTransportOrMulticast : ParseRtspTransport;
  if (!parse(text, t)) {
    return;
  }
  if (t.record() || (t.multicast && (!multicast || t.kind != RtspTransport::Kind::kUdp))) {
    abort();
  }
  // A multicast transport's ports and TTL are the server's to choose: only
  // a unicast one's are checked.
  if (!t.multicast && t.kind == RtspTransport::Kind::kUdp) {
    if (t.client_rtp_port < 1 || t.client_rtp_port > 65535 || t.client_rtcp_port < 1 ||
        t.client_rtcp_port > 65535) {
      abort();
    }
  } else if (!t.multicast) {
    const bool none = t.interleaved_rtp == -1 && t.interleaved_rtcp == -1;
    const bool valid = t.interleaved_rtp >= 0 && t.interleaved_rtp <= 255 &&
                       t.interleaved_rtcp >= 0 && t.interleaved_rtcp <= 255;
    if (!none && !valid) {
      abort();
    }
  }
  RtspTransport again;
  if (!parse(WriteRtspTransport(t), again) || !(again == t)) {
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 16 * 1024) {
    return 0;
  }
  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckServed(text, false);
  CheckServed(text, true);
  RoundTrip<RtspTransport>(text, ParseRtspTransportSpec, WriteRtspTransport);
  RoundTrip<std::vector<RtspTransport>>(text, ParseRtspTransports, WriteTransports);
  RoundTrip<RtspSessionHeader>(text, ParseRtspSession, WriteRtspSession);
  RoundTrip<std::vector<RtpInfoEntry>>(text, ParseRtpInfo, WriteRtpInfo);
  RoundTrip<RtspRange>(text, ParseRtspRange, WriteRtspRange);
  RoundTrip<RtspAuthHeader>(text, ParseRtspAuth, WriteRtspAuth);
  RoundTrip<std::vector<std::string>>(text, ParseTokens, WriteRtspTokenList);
  return 0;
}
