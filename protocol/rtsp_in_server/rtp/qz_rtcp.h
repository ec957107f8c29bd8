// RTCP (RFC 3550 section 6): the sender reports this server sends, and what
// it reads from the RTCP its clients send back (receiver reports and BYE).
// Pure functions over bytes; the parser takes untrusted input.
#ifndef PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTCP_H_
#define PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTCP_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qz_rtsp_internal_server {

// An RTCP compound packet: sender report (RFC 3550 6.4.1) and an SDES with
// the CNAME. `ntp_us` is wall-clock microseconds since the Unix epoch.
std::vector<uint8_t> BuildRtcpSenderReport(uint32_t ssrc,
                                           unsigned long long ntp_us,
                                           uint32_t rtp_time,
                                           uint32_t packet_count,
                                           uint32_t octet_count,
                                           const std::string& cname);

// The middle 32 bits of the NTP timestamp of wall-clock `ntp_us` (what a
// receiver echoes as LSR, RFC 3550 6.4.1).
uint32_t RtcpCompactNtp(unsigned long long ntp_us);

// One report block of a receiver (or sender) report (RFC 3550 6.4.1).
struct RtcpReportBlock {
  uint32_t ssrc = 0;            // the source reported on (one of ours)
  uint8_t fraction_lost = 0;    // 1/256 units, since the previous report
  int32_t cumulative_lost = 0;  // signed 24 bits
  uint32_t highest_seq = 0;     // extended
  uint32_t jitter = 0;          // RTP time units
  uint32_t lsr = 0;             // compact NTP of the last SR received; 0: none
  uint32_t dlsr = 0;            // 1/65536 s since that SR
};

// What one compound packet from a client holds, as far as a sender uses it.
struct RtcpReceived {
  std::vector<RtcpReportBlock> blocks;  // from RR and SR packets
  bool bye = false;
  std::vector<uint32_t> bye_ssrcs;  // the sources that said BYE
};

// Parses a compound packet (RR, SR, SDES, BYE, APP and unknown types in any
// order; unknown ones are skipped by their length). False when the bytes are
// not RTCP (version, lengths, padding): nothing in `out` is then to be used.
bool ParseRtcp(const uint8_t* data, size_t size, RtcpReceived& out);

// Round-trip time from a report block that echoes one of our sender
// reports, given when the report arrived (compact NTP, see RtcpCompactNtp):
// arrival - LSR - DLSR (RFC 3550 6.4.1), in microseconds. -1 when the block
// echoes no report (LSR 0) or the result is negative (clocks or garbage).
long long RtcpRoundTripUs(uint32_t arrival_compact_ntp, uint32_t lsr, uint32_t dlsr);

// The last sender reports sent to one receiver, by the LSR its reports will
// echo, with when each left. A report's NTP stamp is the wall-clock time of
// the record it pairs with an RTP time (one mapping for every track, which
// keeps audio and video together), older than the moment it is sent by the
// record's age: the round trip is counted from when the report left.
class RtcpSentReports {
 public:
  // `report` (from BuildRtcpSenderReport) left at `now_compact_ntp`.
  void Sent(const std::vector<uint8_t>& report, uint32_t now_compact_ntp);
  // When the report a receiver echoes as `lsr` left (compact NTP); 0 when
  // it is not one of the last ones sent.
  uint32_t SentAt(uint32_t lsr) const;

 private:
  static constexpr size_t kKept = 8;  // a report every 5 s per track
  uint32_t lsr_[kKept] = {};
  uint32_t sent_at_[kKept] = {};
  size_t next_ = 0;
};

// What a receiver last reported of what we send it: a viewer of the server,
// or the relay a pusher records to.
struct RtcpReception {
  unsigned long long reports = 0;
  double fraction_lost = 0;  // since the receiver's previous report, 0..1
  long long cumulative_lost = 0;
  double jitter_ms = 0;
  double rtt_ms = -1;  // -1: no report echoed one of our sender reports

  // Takes a block about one of our tracks, sent at `clock_rate` Hz, that
  // arrived at `arrival_compact_ntp` (see RtcpCompactNtp); `sent` are the
  // sender reports its LSR may echo.
  void Add(const RtcpReportBlock& block,
           int clock_rate,
           uint32_t arrival_compact_ntp,
           const RtcpSentReports& sent);
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTCP_H_
