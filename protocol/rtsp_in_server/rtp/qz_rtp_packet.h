// RTP packets built once per track and shared by every client of a stream,
// and the pull-based interface of the payload packetizers that fill them:
// one access unit or frame in, NextPacket() until it says done. No I/O, no
// session knowledge.
#ifndef PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_PACKET_H_
#define PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_PACKET_H_

#include <cstddef>
#include <cstdint>
#include <memory>

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
  // The RTP time of the record's first sample: rtp_time less the samples of
  // the earlier packets of the same record (the time record_ms maps to).
  uint32_t record_rtp_time = 0;
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

  // RTP clock ticks from the unit's time to the first sample of the packet
  // NextPacket wrote last. 0 where every packet of a unit carries the unit's
  // time (video access units, fragments of an AAC access unit); a
  // sample-based format that splits a frame counts the earlier packets'
  // samples.
  virtual uint32_t LastPacketTimeOffset() const { return 0; }

  // How the format uses the marker bit. False: it marks the packet that
  // ends a unit (the last packet of a video access unit; a packet holding
  // complete AAC access units or the last fragment of one). True: it marks
  // the first packet of a talkspurt, which for audio sent without silence
  // suppression is the track's first packet only (RFC 3551 4.1, RFC 5574).
  virtual bool MarksTalkspurtStart() const { return false; }
};

// Network byte order writers shared by the packetizers and RTCP.
inline void PutBe16(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

inline void PutBe32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_PACKET_H_
