// RTP packets built once per track and shared by every client of a stream,
// and the pull-based packetizers that fill them: one access unit or frame in,
// NextPacket() until it says done. No I/O, no session knowledge.
#ifndef PROTOCOL_RTSP_IN_SERVER_QZ_RTP_PACKETIZER_H_
#define PROTOCOL_RTSP_IN_SERVER_QZ_RTP_PACKETIZER_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"

namespace qz_rtsp_internal_server {

constexpr size_t kInterleavedHeaderSize = 4;  // '$', channel, 16-bit length
constexpr size_t kRtpHeaderSize = 12;

// One RTP packet with room for the TCP interleaved header in front, so that
// TCP clients send Tcp*() and UDP clients Udp*() from the same bytes.
struct RtpPacket {
  std::unique_ptr<uint8_t[]> buffer;
  size_t size = 0;  // interleaved header + RTP header + payload
  int track = 0;
  uint16_t seq = 0;
  uint32_t rtp_time = 0;
  bool marker = false;
  bool key_frame_start = false;  // first packet of a video key frame
  long long record_ms = 0;       // the record's timestamp
  long long arrival_ms = 0;      // steady clock when it was built

  const uint8_t* TcpData() const { return buffer.get(); }
  size_t TcpSize() const { return size; }
  const uint8_t* UdpData() const { return buffer.get() + kInterleavedHeaderSize; }
  size_t UdpSize() const { return size - kInterleavedHeaderSize; }
};

// Writes the payload of successive RTP packets. `capacity` is the most a
// payload may hold; NextPacket returns 0 when the unit is done.
class RtpPayloadPacketizer {
 public:
  virtual ~RtpPayloadPacketizer() = default;
  virtual size_t NextPacket(uint8_t* payload, size_t capacity, bool* last) = 0;
};

// RFC 6184, packetization-mode 1: small leading units (parameter sets, SEI)
// aggregated into STAP-A, units that fit sent alone, larger ones as FU-A.
// Access unit delimiters are not sent.
class H264Packetizer : public RtpPayloadPacketizer {
 public:
  H264Packetizer(const std::list<std::shared_ptr<QZRtspPacketData>>& units, size_t max_payload);
  size_t NextPacket(uint8_t* payload, size_t capacity, bool* last) override;

 private:
  std::vector<std::shared_ptr<QZRtspPacketData>> units_;
  size_t max_payload_;
  size_t unit_ = 0;
  size_t offset_ = 0;  // within a fragmented unit
};

// RFC 7798: single NAL unit packets and fragmentation units that copy the
// original header's F, LayerId and TID. Access unit delimiters are not sent.
class H265Packetizer : public RtpPayloadPacketizer {
 public:
  H265Packetizer(const std::list<std::shared_ptr<QZRtspPacketData>>& units, size_t max_payload);
  size_t NextPacket(uint8_t* payload, size_t capacity, bool* last) override;

 private:
  std::vector<std::shared_ptr<QZRtspPacketData>> units_;
  size_t max_payload_;
  size_t unit_ = 0;
  size_t offset_ = 0;
};

// RFC 3640 AAC-hbr: one AU per packet behind a 16-bit AU-headers-length and
// one AU header (13-bit size, 3-bit index); an AU larger than a packet is
// fragmented, each fragment carrying the same AU header.
class AacPacketizer : public RtpPayloadPacketizer {
 public:
  AacPacketizer(std::shared_ptr<QZRtspPacketData> frame, size_t max_payload);
  size_t NextPacket(uint8_t* payload, size_t capacity, bool* last) override;

 private:
  std::shared_ptr<QZRtspPacketData> frame_;
  size_t max_payload_;
  size_t offset_ = 0;
  bool done_ = false;
};

// G.711 (RFC 3551) and Speex (RFC 5574): the frame split into packets of at
// most the payload size.
class RawAudioPacketizer : public RtpPayloadPacketizer {
 public:
  RawAudioPacketizer(std::shared_ptr<QZRtspPacketData> frame, size_t max_payload);
  size_t NextPacket(uint8_t* payload, size_t capacity, bool* last) override;

 private:
  std::shared_ptr<QZRtspPacketData> frame_;
  size_t max_payload_;
  size_t offset_ = 0;
};

// The RTP state of one track: SSRC, sequence numbers and the mapping of
// record milliseconds to RTP time. Wraps payloads into shared RtpPacket.
class RtpTrackWriter {
 public:
  RtpTrackWriter(int track,
                 int payload_type,
                 int clock_rate,
                 uint32_t ssrc,
                 uint16_t first_seq,
                 uint32_t time_offset,
                 uint8_t interleaved_channel);

  // RTP time for a record timestamp. An audio frame whose record time lies
  // within half a frame (at most 20 ms) of where the previous frame's sample
  // count puts it is stamped by sample count, so that millisecond rounding
  // adds no jitter; otherwise, and when the count is 0 (unknown), it is
  // stamped from its record time.
  uint32_t RtpTime(long long record_ms, size_t audio_samples_of_previous);

  // Packetizes into `out`, all packets stamped `rtp_time`; the last one of
  // a video access unit carries the marker bit.
  void Packetize(RtpPayloadPacketizer& packetizer,
                 size_t max_payload,
                 uint32_t rtp_time,
                 long long record_ms,
                 long long now_ms,
                 bool is_video,
                 bool key_frame,
                 std::vector<std::shared_ptr<RtpPacket>>& out);

  uint32_t ssrc() const { return ssrc_; }
  uint16_t next_seq() const { return seq_; }
  int clock_rate() const { return clock_rate_; }
  uint32_t packet_count() const { return packet_count_; }
  uint32_t octet_count() const { return octet_count_; }
  bool has_sent() const { return has_last_; }
  uint32_t last_rtp_time() const { return last_rtp_; }
  long long last_record_ms() const { return last_record_ms_; }

 private:
  int track_;
  int payload_type_;
  int clock_rate_;
  uint32_t ssrc_;
  uint16_t seq_;
  uint32_t time_offset_;
  uint8_t channel_;
  uint32_t packet_count_ = 0;
  uint32_t octet_count_ = 0;
  bool has_last_ = false;
  uint32_t last_rtp_ = 0;
  long long last_record_ms_ = 0;
};

// An RTCP compound packet: sender report (RFC 3550 6.4.1) and an SDES with
// the CNAME. `ntp_us` is wall-clock microseconds since the Unix epoch.
std::vector<uint8_t> BuildRtcpSenderReport(uint32_t ssrc,
                                           unsigned long long ntp_us,
                                           uint32_t rtp_time,
                                           uint32_t packet_count,
                                           uint32_t octet_count,
                                           const std::string& cname);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_QZ_RTP_PACKETIZER_H_
