// ParseRtcp over arbitrary bytes, as a client's RTCP port would receive
// them. What a successful parse returns must fit in the input (each block
// takes 24 bytes, each BYE source 4, each packet a multiple of 4), the
// result must not depend on what the output held before, and the round trip
// of any block is a duration or -1.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "protocol/rtsp_in_server/rtp/qz_rtcp.h"

namespace {

using qz_rtsp_internal_server::ParseRtcp;
using qz_rtsp_internal_server::RtcpCompactNtp;
using qz_rtsp_internal_server::RtcpReceived;
using qz_rtsp_internal_server::RtcpReportBlock;
using qz_rtsp_internal_server::RtcpRoundTripUs;

bool Same(const RtcpReportBlock& a, const RtcpReportBlock& b) {
  return a.ssrc == b.ssrc && a.fraction_lost == b.fraction_lost &&
         a.cumulative_lost == b.cumulative_lost && a.highest_seq == b.highest_seq &&
         a.jitter == b.jitter && a.lsr == b.lsr && a.dlsr == b.dlsr;
}

void CheckRoundTrip(const RtcpReportBlock& block) {
  const uint32_t arrivals[] = {0, 0xFFFFFFFFu, block.lsr, block.lsr + block.dlsr,
                               block.lsr + block.dlsr + 0x10000};
  for (uint32_t arrival : arrivals) {
    const long long rtt = RtcpRoundTripUs(arrival, block.lsr, block.dlsr);
    if (rtt < -1 || (block.lsr == 0 && rtt != -1)) {
      abort();
    }
    // At most 2^31 units of 1/65536 s.
    if (rtt > 32768LL * 1000000) {
      abort();
    }
  }
  // Arriving exactly when the receiver says it sent the report: no delay.
  if (block.lsr != 0 && block.dlsr < 0x80000000u &&
      RtcpRoundTripUs(block.lsr + block.dlsr, block.lsr, block.dlsr) != 0) {
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) {
    return 0;  // larger than any datagram
  }
  // A copy of exactly `size` bytes, so that any read past it is caught.
  std::vector<uint8_t> bytes(data, data + size);
  RtcpReceived out;
  const bool ok = ParseRtcp(bytes.data(), bytes.size(), out);

  RtcpReceived reused;
  reused.blocks.resize(3);
  reused.bye = true;
  reused.bye_ssrcs = {1, 2};
  if (ParseRtcp(bytes.data(), bytes.size(), reused) != ok) {
    abort();
  }
  if (!ok) {
    return 0;
  }
  if (reused.bye != out.bye || reused.bye_ssrcs != out.bye_ssrcs ||
      reused.blocks.size() != out.blocks.size()) {
    abort();
  }
  for (size_t i = 0; i < out.blocks.size(); ++i) {
    if (!Same(out.blocks[i], reused.blocks[i])) {
      abort();
    }
  }
  if (size == 0 || size % 4 != 0) {
    abort();
  }
  // Blocks and BYE sources come from different bytes, behind at least one
  // report header with its sender SSRC and one BYE header.
  const size_t used = out.blocks.size() * 24 + (out.blocks.empty() ? 0 : 8) +
                      out.bye_ssrcs.size() * 4 + (out.bye_ssrcs.empty() ? 0 : 4);
  if (used > size) {
    abort();
  }
  if (!out.bye_ssrcs.empty() && !out.bye) {
    abort();
  }
  for (const RtcpReportBlock& block : out.blocks) {
    if (block.cumulative_lost < -(1 << 23) || block.cumulative_lost >= (1 << 23)) {
      abort();
    }
    CheckRoundTrip(block);
  }
  // Compact NTP keeps 16 bits of seconds: it repeats every 65536 s.
  if (size >= 8) {
    unsigned long long us = 0;
    std::memcpy(&us, bytes.data(), sizeof(us));
    us >>= 8;  // far from overflow
    if (RtcpCompactNtp(us) != RtcpCompactNtp(us + 65536ULL * 1000000)) {
      abort();
    }
  }
  return 0;
}
