// The RTP state of one track and the RTP header it writes in front of each
// payload a packetizer produces.
#ifndef PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_TRACK_WRITER_H_
#define PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_TRACK_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "protocol/rtsp_in_server/rtp/qz_rtp_packet.h"

namespace qz_rtsp_internal_server {

// SSRC, sequence numbers and the mapping of record milliseconds to RTP
// time of one track. Wraps payloads into shared RtpPacket.
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

  // Packetizes one unit (access unit or audio frame) of time `rtp_time`
  // into `out`. Each packet is stamped `rtp_time` plus the packetizer's
  // offset for it, and carries the marker bit by the packetizer's rule: on
  // the packet that ends the unit, or on the track's first packet only.
  // `key_frame` (with `is_video`) flags the unit's first packet as the start
  // of a key frame.
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
  // The time of the newest unit sent (not of its last packet) and its record
  // time: the pair a sender report maps to the wall clock.
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

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_TRACK_WRITER_H_
