#include "protocol/rtsp_in_server/qz_rtp_packetizer.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace qz_rtsp_internal_server {
namespace {

constexpr uint8_t kH264StapA = 24;
constexpr uint8_t kH264FuA = 28;
constexpr uint8_t kH264Aud = 9;
constexpr uint8_t kH265Fu = 49;
constexpr uint8_t kH265Aud = 35;

std::vector<std::shared_ptr<QZRtspPacketData>> SendableUnits(
    const std::list<std::shared_ptr<QZRtspPacketData>>& units,
    bool h265) {
  std::vector<std::shared_ptr<QZRtspPacketData>> out;
  for (const auto& unit : units) {
    if (!unit || unit->size_ < (h265 ? 3u : 2u)) {
      continue;  // nothing but a header: no payload worth a packet
    }
    const uint8_t type = h265 ? (unit->data_[0] >> 1) & 0x3F : unit->data_[0] & 0x1F;
    if (type == (h265 ? kH265Aud : kH264Aud)) {
      continue;
    }
    out.push_back(unit);
  }
  return out;
}

bool IsH264Slice(const QZRtspPacketData& unit) {
  const uint8_t type = unit.data_[0] & 0x1F;
  return type >= 1 && type <= 5;
}

void Put16(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

void Put32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

}  // namespace

H264Packetizer::H264Packetizer(const std::list<std::shared_ptr<QZRtspPacketData>>& units,
                               size_t max_payload)
    : units_(SendableUnits(units, false)), max_payload_(max_payload) {}

size_t H264Packetizer::NextPacket(uint8_t* payload, size_t capacity, bool* last) {
  const size_t limit = std::min(capacity, max_payload_);
  if (unit_ >= units_.size() || limit < 3) {
    return 0;
  }
  const QZRtspPacketData& unit = *units_[unit_];
  if (offset_ == 0) {
    // STAP-A (RFC 6184 5.7.1): F|NRI|24, then 16-bit size + unit, repeated.
    // Only for leading non-slice units, so a slice keeps its own packet.
    size_t total = 1;
    size_t count = 0;
    uint8_t nri = 0;
    for (size_t i = unit_; i < units_.size() && !IsH264Slice(*units_[i]); ++i) {
      if (total + 2 + units_[i]->size_ > limit) {
        break;
      }
      total += 2 + units_[i]->size_;
      nri = std::max<uint8_t>(nri, units_[i]->data_[0] & 0x60);
      ++count;
    }
    if (count >= 2) {
      uint8_t* p = payload;
      *p++ = nri | kH264StapA;
      for (size_t i = 0; i < count; ++i) {
        const QZRtspPacketData& u = *units_[unit_ + i];
        Put16(p, u.size_);
        std::memcpy(p + 2, u.data_.get(), u.size_);
        p += 2 + u.size_;
      }
      unit_ += count;
      *last = unit_ >= units_.size();
      return total;
    }
    if (unit.size_ <= limit) {
      std::memcpy(payload, unit.data_.get(), unit.size_);
      ++unit_;
      *last = unit_ >= units_.size();
      return unit.size_;
    }
    offset_ = 1;  // the NAL header travels in the FU indicator and header
  }
  // FU-A (RFC 6184 5.8): indicator F|NRI|28, header S|E|R|type.
  const uint8_t header = unit.data_[0];
  const size_t remaining = unit.size_ - offset_;
  const size_t chunk = std::min(remaining, limit - 2);
  payload[0] = (header & 0xE0) | kH264FuA;
  payload[1] = header & 0x1F;
  if (offset_ == 1) {
    payload[1] |= 0x80;  // S
  }
  const bool end = chunk == remaining;
  if (end) {
    payload[1] |= 0x40;  // E
  }
  std::memcpy(payload + 2, unit.data_.get() + offset_, chunk);
  offset_ += chunk;
  if (end) {
    offset_ = 0;
    ++unit_;
  }
  *last = unit_ >= units_.size();
  return chunk + 2;
}

H265Packetizer::H265Packetizer(const std::list<std::shared_ptr<QZRtspPacketData>>& units,
                               size_t max_payload)
    : units_(SendableUnits(units, true)), max_payload_(max_payload) {}

size_t H265Packetizer::NextPacket(uint8_t* payload, size_t capacity, bool* last) {
  const size_t limit = std::min(capacity, max_payload_);
  if (unit_ >= units_.size() || limit < 4) {
    return 0;
  }
  const QZRtspPacketData& unit = *units_[unit_];
  if (offset_ == 0) {
    if (unit.size_ <= limit) {
      std::memcpy(payload, unit.data_.get(), unit.size_);
      ++unit_;
      *last = unit_ >= units_.size();
      return unit.size_;
    }
    offset_ = 2;  // the two-byte header goes into the PayloadHdr and FU header
  }
  // FU (RFC 7798 4.4.3): PayloadHdr keeps F, LayerId and TID of the unit
  // with Type 49; FU header S|E|FuType.
  const uint8_t h0 = unit.data_[0];
  const uint8_t h1 = unit.data_[1];
  const size_t remaining = unit.size_ - offset_;
  const size_t chunk = std::min(remaining, limit - 3);
  payload[0] = static_cast<uint8_t>((h0 & 0x81) | (kH265Fu << 1));
  payload[1] = h1;
  payload[2] = (h0 >> 1) & 0x3F;
  if (offset_ == 2) {
    payload[2] |= 0x80;
  }
  const bool end = chunk == remaining;
  if (end) {
    payload[2] |= 0x40;
  }
  std::memcpy(payload + 3, unit.data_.get() + offset_, chunk);
  offset_ += chunk;
  if (end) {
    offset_ = 0;
    ++unit_;
  }
  *last = unit_ >= units_.size();
  return chunk + 3;
}

AacPacketizer::AacPacketizer(std::shared_ptr<QZRtspPacketData> frame, size_t max_payload)
    : frame_(std::move(frame)), max_payload_(max_payload) {}

size_t AacPacketizer::NextPacket(uint8_t* payload, size_t capacity, bool* last) {
  const size_t limit = std::min(capacity, max_payload_);
  // 13 bits of AU size: larger frames cannot be described.
  if (done_ || !frame_ || frame_->size_ == 0 || frame_->size_ >= (1u << 13) || limit < 5) {
    return 0;
  }
  const size_t remaining = frame_->size_ - offset_;
  const size_t chunk = std::min(remaining, limit - 4);
  Put16(payload, 16);                                 // AU-headers-length in bits
  Put16(payload + 2, (frame_->size_ << 3) & 0xFFF8);  // AU-size | AU-Index 0
  std::memcpy(payload + 4, frame_->data_.get() + offset_, chunk);
  offset_ += chunk;
  done_ = offset_ >= frame_->size_;
  *last = done_;
  return chunk + 4;
}

RawAudioPacketizer::RawAudioPacketizer(std::shared_ptr<QZRtspPacketData> frame, size_t max_payload)
    : frame_(std::move(frame)), max_payload_(max_payload) {}

size_t RawAudioPacketizer::NextPacket(uint8_t* payload, size_t capacity, bool* last) {
  if (!frame_ || offset_ >= frame_->size_) {
    return 0;
  }
  const size_t chunk = std::min<size_t>({frame_->size_ - offset_, capacity, max_payload_});
  std::memcpy(payload, frame_->data_.get() + offset_, chunk);
  offset_ += chunk;
  *last = offset_ >= frame_->size_;
  return chunk;
}

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
    Put16(b + 2, static_cast<uint32_t>(rtp_size));
    uint8_t* rtp = b + kInterleavedHeaderSize;
    // RFC 3550 5.1: V=2 P=0 X=0 CC=0 | M PT | sequence | timestamp | SSRC.
    const bool marker = is_video ? last : true;
    rtp[0] = 0x80;
    rtp[1] = static_cast<uint8_t>((marker ? 0x80 : 0) | (payload_type_ & 0x7F));
    Put16(rtp + 2, seq_);
    Put32(rtp + 4, rtp_time);
    Put32(rtp + 8, ssrc_);
    packet->buffer = std::move(buffer);
    packet->size = kInterleavedHeaderSize + rtp_size;
    packet->track = track_;
    packet->seq = seq_;
    packet->rtp_time = rtp_time;
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

std::vector<uint8_t> BuildRtcpSenderReport(uint32_t ssrc,
                                           unsigned long long ntp_us,
                                           uint32_t rtp_time,
                                           uint32_t packet_count,
                                           uint32_t octet_count,
                                           const std::string& cname) {
  // NTP time: seconds since 1900 and a 32-bit binary fraction.
  constexpr unsigned long long kNtpUnixOffset = 2208988800ULL;
  const unsigned long long seconds = ntp_us / 1000000ULL + kNtpUnixOffset;
  const unsigned long long fraction = ((ntp_us % 1000000ULL) << 32) / 1000000ULL;
  std::vector<uint8_t> out(28);
  out[0] = 0x80;      // V=2, P=0, RC=0
  out[1] = 200;       // SR
  Put16(&out[2], 6);  // length in 32-bit words minus one
  Put32(&out[4], ssrc);
  Put32(&out[8], static_cast<uint32_t>(seconds));
  Put32(&out[12], static_cast<uint32_t>(fraction));
  Put32(&out[16], rtp_time);
  Put32(&out[20], packet_count);
  Put32(&out[24], octet_count);
  // SDES (RFC 3550 6.5): one chunk, CNAME item, end item, padded to 32 bits.
  const size_t name_len = std::min<size_t>(cname.size(), 255);
  size_t chunk = 4 + 2 + name_len + 1;
  chunk = (chunk + 3) & ~size_t{3};
  std::vector<uint8_t> sdes(4 + chunk, 0);
  sdes[0] = 0x81;  // V=2, SC=1
  sdes[1] = 202;
  Put16(&sdes[2], static_cast<uint32_t>(sdes.size() / 4 - 1));
  Put32(&sdes[4], ssrc);
  sdes[8] = 1;  // CNAME
  sdes[9] = static_cast<uint8_t>(name_len);
  std::memcpy(&sdes[10], cname.data(), name_len);
  out.insert(out.end(), sdes.begin(), sdes.end());
  return out;
}

}  // namespace qz_rtsp_internal_server
