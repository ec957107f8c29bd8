#include "protocol/rtsp_in_server/rtp/qz_rtp_track_writer.h"

#include <algorithm>
#include <new>

namespace qz_rtsp_internal_server {

RtpTrackWriter::RtpTrackWriter(int track,
                               int payload_type,
                               int clock_rate,
                               uint32_t ssrc,
                               uint16_t first_seq,
                               uint32_t time_offset,
                               uint8_t interleaved_channel)
    : track_(track),
      payload_type_(payload_type),
      clock_rate_(clock_rate > 0 ? clock_rate : 90000),
      ssrc_(ssrc),
      seq_(first_seq),
      time_offset_(time_offset),
      channel_(interleaved_channel) {}

uint32_t RtpTrackWriter::RtpTime(long long record_ms, size_t audio_samples_of_previous) {
  const uint32_t measured =
      time_offset_ + static_cast<uint32_t>(static_cast<unsigned long long>(record_ms) *
                                           static_cast<unsigned long long>(clock_rate_) / 1000);
  if (has_last_ && audio_samples_of_previous > 0) {
    const uint32_t expected = last_rtp_ + static_cast<uint32_t>(audio_samples_of_previous);
    const int32_t diff = static_cast<int32_t>(measured - expected);
    // Less than half a frame and at most 20 ms: millisecond rounding stays
    // inside, a lost frame or a jump of the record times does not, and the
    // time resyncs to the record time instead of drifting off by a frame.
    const int32_t window = static_cast<int32_t>(
        std::min<size_t>(static_cast<size_t>(clock_rate_ / 50), audio_samples_of_previous / 2));
    if (diff < window && diff > -window) {
      return expected;
    }
  }
  return measured;
}

void RtpTrackWriter::Packetize(RtpPayloadPacketizer& packetizer,
                               size_t max_payload,
                               uint32_t rtp_time,
                               long long record_ms,
                               long long now_ms,
                               bool is_video,
                               bool key_frame,
                               std::vector<std::shared_ptr<RtpPacket>>& out) {
  const size_t capacity = kInterleavedHeaderSize + kRtpHeaderSize + max_payload;
  bool first = true;
  for (;;) {
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[capacity]);
    if (!buffer) {
      return;
    }
    bool last = false;
    const size_t payload_size = packetizer.NextPacket(
        buffer.get() + kInterleavedHeaderSize + kRtpHeaderSize, max_payload, &last);
    if (payload_size == 0) {
      return;
    }
    auto packet = std::make_shared<RtpPacket>();
    const size_t rtp_size = kRtpHeaderSize + payload_size;
    uint8_t* b = buffer.get();
    b[0] = '$';
    b[1] = channel_;
    PutBe16(b + 2, static_cast<uint32_t>(rtp_size));
    uint8_t* rtp = b + kInterleavedHeaderSize;
    // RFC 3550 5.1: V=2 P=0 X=0 CC=0 | M PT | sequence | timestamp | SSRC.
    const bool marker = packetizer.MarksTalkspurtStart() ? !has_last_ : last;
    const uint32_t packet_time = rtp_time + packetizer.LastPacketTimeOffset();
    rtp[0] = 0x80;
    rtp[1] = static_cast<uint8_t>((marker ? 0x80 : 0) | (payload_type_ & 0x7F));
    PutBe16(rtp + 2, seq_);
    PutBe32(rtp + 4, packet_time);
    PutBe32(rtp + 8, ssrc_);
    packet->buffer = std::move(buffer);
    packet->size = kInterleavedHeaderSize + rtp_size;
    packet->track = track_;
    packet->seq = seq_;
    packet->rtp_time = packet_time;
    packet->record_rtp_time = rtp_time;
    packet->marker = marker;
    packet->key_frame_start = is_video && key_frame && first;
    packet->record_ms = record_ms;
    packet->arrival_ms = now_ms;
    out.push_back(std::move(packet));
    ++seq_;
    ++packet_count_;
    octet_count_ += static_cast<uint32_t>(payload_size);
    has_last_ = true;
    last_rtp_ = rtp_time;
    last_record_ms_ = record_ms;
    first = false;
    if (last) {
      return;
    }
  }
}

}  // namespace qz_rtsp_internal_server
