#include "protocol/rtsp_in_server/rtp/qz_rtcp.h"

#include <algorithm>
#include <cstring>

#include "protocol/rtsp_in_server/rtp/qz_rtp_packet.h"

namespace qz_rtsp_internal_server {
namespace {

constexpr uint8_t kSenderReport = 200;
constexpr uint8_t kReceiverReport = 201;
constexpr uint8_t kSourceDescription = 202;
constexpr uint8_t kGoodbye = 203;
constexpr size_t kHeaderSize = 4;        // V|P|count, type, 16-bit length
constexpr size_t kSenderInfoSize = 20;   // NTP time, RTP time, packet and octet counts
constexpr size_t kReportBlockSize = 24;  // RFC 3550 6.4.1

// NTP time: seconds since 1900 and a 32-bit binary fraction.
struct NtpTime {
  uint32_t seconds;
  uint32_t fraction;
};

NtpTime ToNtp(unsigned long long ntp_us) {
  constexpr unsigned long long kNtpUnixOffset = 2208988800ULL;  // 1900 to 1970
  const unsigned long long seconds = ntp_us / 1000000ULL + kNtpUnixOffset;
  const unsigned long long fraction = ((ntp_us % 1000000ULL) << 32) / 1000000ULL;
  return {static_cast<uint32_t>(seconds), static_cast<uint32_t>(fraction)};
}

uint32_t Be16(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 8) | p[1];
}

uint32_t Be32(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

void ReadReportBlocks(const uint8_t* p, size_t count, std::vector<RtcpReportBlock>& out) {
  for (size_t i = 0; i < count; ++i, p += kReportBlockSize) {
    RtcpReportBlock block;
    block.ssrc = Be32(p);
    block.fraction_lost = p[4];
    const uint32_t lost = Be32(p + 4) & 0xFFFFFF;
    // Signed 24 bits: duplicates can make the count negative.
    block.cumulative_lost = static_cast<int32_t>(lost & 0x800000 ? lost - 0x1000000 : lost);
    block.highest_seq = Be32(p + 8);
    block.jitter = Be32(p + 12);
    block.lsr = Be32(p + 16);
    block.dlsr = Be32(p + 20);
    out.push_back(block);
  }
}

}  // namespace

std::vector<uint8_t> BuildRtcpSenderReport(uint32_t ssrc,
                                           unsigned long long ntp_us,
                                           uint32_t rtp_time,
                                           uint32_t packet_count,
                                           uint32_t octet_count,
                                           const std::string& cname) {
  const NtpTime ntp = ToNtp(ntp_us);
  std::vector<uint8_t> out(kHeaderSize + 4 + kSenderInfoSize);
  out[0] = 0x80;  // V=2, P=0, RC=0
  out[1] = kSenderReport;
  PutBe16(&out[2], static_cast<uint32_t>(out.size() / 4 - 1));  // 32-bit words minus one
  PutBe32(&out[4], ssrc);
  PutBe32(&out[8], ntp.seconds);
  PutBe32(&out[12], ntp.fraction);
  PutBe32(&out[16], rtp_time);
  PutBe32(&out[20], packet_count);
  PutBe32(&out[24], octet_count);
  // SDES (RFC 3550 6.5): one chunk, CNAME item, end item, padded to 32 bits.
  const size_t name_len = std::min<size_t>(cname.size(), 255);
  size_t chunk = 4 + 2 + name_len + 1;
  chunk = (chunk + 3) & ~size_t{3};
  std::vector<uint8_t> sdes(kHeaderSize + chunk, 0);
  sdes[0] = 0x81;  // V=2, SC=1
  sdes[1] = kSourceDescription;
  PutBe16(&sdes[2], static_cast<uint32_t>(sdes.size() / 4 - 1));
  PutBe32(&sdes[4], ssrc);
  sdes[8] = 1;  // CNAME
  sdes[9] = static_cast<uint8_t>(name_len);
  std::memcpy(&sdes[10], cname.data(), name_len);
  out.insert(out.end(), sdes.begin(), sdes.end());
  return out;
}

uint32_t RtcpCompactNtp(unsigned long long ntp_us) {
  const NtpTime ntp = ToNtp(ntp_us);
  return (ntp.seconds << 16) | (ntp.fraction >> 16);
}

bool ParseRtcp(const uint8_t* data, size_t size, RtcpReceived& out) {
  out = RtcpReceived();
  if (data == nullptr || size < kHeaderSize) {
    return false;
  }
  // Every packet takes at least its 4-byte header, and what is stored is
  // bounded by the input: at most size / 24 blocks and size / 4 sources.
  size_t offset = 0;
  while (offset < size) {
    const size_t left = size - offset;
    if (left < kHeaderSize) {
      return false;
    }
    const uint8_t* p = data + offset;
    if ((p[0] >> 6) != 2) {
      return false;
    }
    const bool padded = (p[0] & 0x20) != 0;
    const size_t count = p[0] & 0x1F;
    const uint8_t type = p[1];
    const size_t length = (Be16(p + 2) + 1) * 4;
    if (length > left) {
      return false;
    }
    size_t end = length;  // of what the packet carries, padding excluded
    if (padded) {
      // Only the last packet of a compound may be padded; the last octet
      // counts the padding, itself included.
      const size_t padding = p[length - 1];
      if (offset + length != size || padding == 0 || padding > length - kHeaderSize) {
        return false;
      }
      end -= padding;
    }
    switch (type) {
      case kSenderReport:
      case kReceiverReport: {
        // Sender SSRC, for an SR its sender info, then the report blocks;
        // profile extensions may follow them.
        const size_t first = kHeaderSize + 4 + (type == kSenderReport ? kSenderInfoSize : 0);
        if (end < first || count > (end - first) / kReportBlockSize) {
          return false;
        }
        ReadReportBlocks(p + first, count, out.blocks);
        break;
      }
      case kGoodbye: {
        // The sources, then an optional reason.
        if (count > (end - kHeaderSize) / 4) {
          return false;
        }
        out.bye = true;
        for (size_t i = 0; i < count; ++i) {
          out.bye_ssrcs.push_back(Be32(p + kHeaderSize + 4 * i));
        }
        break;
      }
      default:
        break;  // SDES, APP and anything newer: nothing a sender acts on
    }
    offset += length;
  }
  return true;
}

long long RtcpRoundTripUs(uint32_t arrival_compact_ntp, uint32_t lsr, uint32_t dlsr) {
  if (lsr == 0) {
    return -1;
  }
  // Compact NTP wraps every 65536 s: the time since our report is the
  // signed 32-bit difference, negative when the receiver's echo would have
  // come before the report (a clock step or garbage).
  const long long since_report = static_cast<int32_t>(arrival_compact_ntp - lsr);
  const long long round_trip = since_report - static_cast<long long>(dlsr);
  if (round_trip < 0) {
    return -1;
  }
  return round_trip * 1000000 / 65536;  // 1/65536 s units to microseconds
}

void RtcpSentReports::Sent(const std::vector<uint8_t>& report, uint32_t now_compact_ntp) {
  if (report.size() < 16) {
    return;
  }
  // The NTP stamp's middle 32 bits, as a receiver echoes them.
  lsr_[next_] = static_cast<uint32_t>(report[10]) << 24 | static_cast<uint32_t>(report[11]) << 16 |
                static_cast<uint32_t>(report[12]) << 8 | report[13];
  sent_at_[next_] = now_compact_ntp;
  next_ = (next_ + 1) % kKept;
}

uint32_t RtcpSentReports::SentAt(uint32_t lsr) const {
  for (size_t i = 0; lsr != 0 && i < kKept; ++i) {
    const size_t newest_first = (next_ + kKept - 1 - i) % kKept;
    if (lsr_[newest_first] == lsr) {
      return sent_at_[newest_first];
    }
  }
  return 0;
}

void RtcpReception::Add(const RtcpReportBlock& block,
                        int clock_rate,
                        uint32_t arrival_compact_ntp,
                        const RtcpSentReports& sent) {
  ++reports;
  fraction_lost = block.fraction_lost / 256.0;
  cumulative_lost = block.cumulative_lost;
  jitter_ms = clock_rate > 0 ? block.jitter * 1000.0 / clock_rate : 0;
  const long long rtt_us =
      RtcpRoundTripUs(arrival_compact_ntp, sent.SentAt(block.lsr), block.dlsr);
  if (rtt_us >= 0) {
    rtt_ms = rtt_us / 1000.0;
  }
}

}  // namespace qz_rtsp_internal_server
