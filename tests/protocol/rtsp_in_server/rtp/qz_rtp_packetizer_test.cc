// Golden bytes for the RTP packetizers, the RTP header, and the SDP.
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_aac.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_g711.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_h264.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_h265.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_speex.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_track_writer.h"
#include "protocol/rtsp_in_server/wire/qz_sdp.h"
#include "tests/fakes/test_support.h"

namespace qz_rtsp_internal_server {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Filled(uint8_t header, size_t size) {
  Bytes b(size);
  for (size_t i = 0; i < size; ++i)
    b[i] = static_cast<uint8_t>(i * 7 + 1);
  b[0] = header;
  return b;
}

struct Payload {
  Bytes bytes;
  bool last;
};

std::vector<Payload> Drain(RtpPayloadPacketizer& p, size_t capacity) {
  std::vector<Payload> out;
  std::vector<uint8_t> buffer(capacity);
  for (;;) {
    bool last = false;
    const size_t n = p.NextPacket(buffer.data(), capacity, &last);
    if (n == 0)
      break;
    out.push_back({Bytes(buffer.begin(), buffer.begin() + n), last});
  }
  return out;
}

TEST(H264PacketizerTest, ParameterSetsAggregateAndSmallSlicesGoAlone) {
  const Bytes aud = {0x09, 0x30}, sps = {0x67, 0x42, 0x00, 0x1E}, pps = {0x68, 0xCE, 0x3C};
  const Bytes idr = Filled(0x65, 100);
  H264Packetizer p({qz_test::PacketData(aud), qz_test::PacketData(sps), qz_test::PacketData(pps),
                    qz_test::PacketData(idr)},
                   1400);
  const auto packets = Drain(p, 1400);
  ASSERT_EQ(packets.size(), 2u);
  // STAP-A: F=0 NRI=11 (highest of the units) type 24 = 0x78; then 16-bit
  // size + unit for each; the delimiter is not sent.
  Bytes stap = {0x78, 0x00, 0x04};
  stap.insert(stap.end(), sps.begin(), sps.end());
  stap.insert(stap.end(), {0x00, 0x03});
  stap.insert(stap.end(), pps.begin(), pps.end());
  EXPECT_EQ(packets[0].bytes, stap);
  EXPECT_FALSE(packets[0].last);
  EXPECT_EQ(packets[1].bytes, idr);  // single NAL unit packet
  EXPECT_TRUE(packets[1].last);
}

TEST(H264PacketizerTest, FuABoundaries) {
  // 3001 bytes: header + 3000 payload bytes; 1398 per fragment after the
  // two FU bytes -> 1398, 1398, 204.
  const Bytes idr = Filled(0x65, 3001);
  H264Packetizer p({qz_test::PacketData(idr)}, 1400);
  const auto packets = Drain(p, 1400);
  ASSERT_EQ(packets.size(), 3u);
  // FU indicator: F=0 NRI=11 type 28 -> 0x7C. FU header: S E R type(5).
  EXPECT_EQ(packets[0].bytes[0], 0x7C);
  EXPECT_EQ(packets[0].bytes[1], 0x85);  // S=1
  EXPECT_EQ(packets[1].bytes[1], 0x05);
  EXPECT_EQ(packets[2].bytes[1], 0x45);  // E=1
  EXPECT_EQ(packets[0].bytes.size(), 1400u);
  EXPECT_EQ(packets[1].bytes.size(), 1400u);
  EXPECT_EQ(packets[2].bytes.size(), 2u + 3000 - 2 * 1398);
  EXPECT_FALSE(packets[1].last);
  EXPECT_TRUE(packets[2].last);
  // The fragments reassemble to the unit.
  Bytes joined = {idr[0]};
  for (const auto& pk : packets)
    joined.insert(joined.end(), pk.bytes.begin() + 2, pk.bytes.end());
  EXPECT_EQ(joined, idr);
}

TEST(H264PacketizerTest, UnitExactlyAtTheLimitIsNotFragmented) {
  H264Packetizer p({qz_test::PacketData(Filled(0x41, 1400))}, 1400);
  const auto packets = Drain(p, 1400);
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].bytes[0], 0x41);
}

TEST(H265PacketizerTest, FuKeepsLayerIdAndTid) {
  // Header 0x27 0x0A: F=0, type=19 (IDR_W_RADL), LayerId=33, TID=2.
  const Bytes idr = Filled(0x27, 2000);
  Bytes unit = idr;
  unit[1] = 0x0A;
  H265Packetizer p({qz_test::PacketData({0x46, 0x01, 0x50}), qz_test::PacketData(unit)},
                   1400);  // AUD (type 35) skipped
  const auto packets = Drain(p, 1400);
  ASSERT_EQ(packets.size(), 2u);
  // PayloadHdr: F | type 49 | LayerId | TID -> (0x27 & 0x81) | 49 << 1 = 0x63, 0x0A.
  EXPECT_EQ(packets[0].bytes[0], 0x63);
  EXPECT_EQ(packets[0].bytes[1], 0x0A);
  EXPECT_EQ(packets[0].bytes[2], 0x80 | 19);  // S + FuType
  EXPECT_EQ(packets[1].bytes[2], 0x40 | 19);  // E + FuType
  Bytes joined = {unit[0], unit[1]};
  for (const auto& pk : packets)
    joined.insert(joined.end(), pk.bytes.begin() + 3, pk.bytes.end());
  EXPECT_EQ(joined, unit);
}

TEST(AacPacketizerTest, AuHeaderAndFragments) {
  AacPacketizer small(qz_test::PacketData(Filled(0x21, 300)), 1400);
  auto packets = Drain(small, 1400);
  ASSERT_EQ(packets.size(), 1u);
  // AU-headers-length 16 bits; AU-header: size 300 in 13 bits, index 0:
  // 300 << 3 = 0x0960.
  EXPECT_EQ(Bytes(packets[0].bytes.begin(), packets[0].bytes.begin() + 4),
            Bytes({0x00, 0x10, 0x09, 0x60}));
  EXPECT_TRUE(packets[0].last);

  AacPacketizer large(qz_test::PacketData(Filled(0x21, 2000)), 1400);
  packets = Drain(large, 1400);
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(packets[1].bytes[2], 0x3E);  // 2000 << 3 = 0x3E80, in every fragment
  EXPECT_EQ(packets[1].bytes[3], 0x80);
  EXPECT_FALSE(packets[0].last);
  EXPECT_TRUE(packets[1].last);
}

TEST(RtpTrackWriterTest, HeaderMarkerAndSequence) {
  RtpTrackWriter writer(0, 96, 90000, 0x11223344, 0xFFFF, 1000, 0);
  H264Packetizer p({qz_test::PacketData(Filled(0x65, 3001))}, 1400);
  std::vector<std::shared_ptr<RtpPacket>> out;
  const uint32_t ts = writer.RtpTime(40, 0);
  EXPECT_EQ(ts, 1000u + 40u * 90u);
  writer.Packetize(p, 1400, ts, 40, 0, true, true, out);
  ASSERT_EQ(out.size(), 3u);
  const uint8_t* h = out[0]->TcpData();
  // '$', channel 0, length of the RTP packet.
  EXPECT_EQ(h[0], '$');
  EXPECT_EQ(h[1], 0);
  EXPECT_EQ((h[2] << 8) | h[3], static_cast<int>(out[0]->UdpSize()));
  const uint8_t* rtp = out[0]->UdpData();
  EXPECT_EQ(rtp[0], 0x80);  // V=2
  EXPECT_EQ(rtp[1], 96);    // no marker on the first fragment
  EXPECT_EQ((rtp[2] << 8) | rtp[3], 0xFFFF);
  EXPECT_EQ(out[1]->seq, 0);                   // wraps
  EXPECT_EQ(out[2]->UdpData()[1], 0x80 | 96);  // marker on the last packet of the frame
  EXPECT_TRUE(out[0]->key_frame_start);
  EXPECT_FALSE(out[1]->key_frame_start);
  EXPECT_EQ(rtp[8], 0x11);
  EXPECT_EQ(writer.packet_count(), 3u);
}

TEST(G711PacketizerTest, SplitsOnSampleBoundaries) {
  struct Case {
    size_t channels;
    std::vector<size_t> sizes;
  };
  // 3000 bytes at a payload size of 1399: a stereo sample is two bytes.
  for (const Case& c : {Case{1, {1399, 1399, 202}}, Case{2, {1398, 1398, 204}}}) {
    const Bytes frame = Filled(0xD5, 3000);
    G711Packetizer p(qz_test::PacketData(frame), 1399, c.channels);
    const auto packets = Drain(p, 1400);
    ASSERT_EQ(packets.size(), c.sizes.size()) << c.channels;
    Bytes joined;
    for (size_t i = 0; i < packets.size(); ++i) {
      EXPECT_EQ(packets[i].bytes.size(), c.sizes[i]) << c.channels << " " << i;
      EXPECT_EQ(packets[i].last, i + 1 == packets.size());
      joined.insert(joined.end(), packets[i].bytes.begin(), packets[i].bytes.end());
    }
    EXPECT_EQ(joined, frame);
  }
}

TEST(SpeexPacketizerTest, OneRecordPerPacketNeverSplit) {
  struct Case {
    size_t size;
    size_t max_payload;
    bool sent;
  };
  for (const Case& c : {Case{70, 1400, true}, Case{1400, 1400, true}, Case{1401, 1400, false},
                        Case{300, 200, false}}) {
    const Bytes frame = Filled(0x1E, c.size);
    SpeexPacketizer p(qz_test::PacketData(frame), c.max_payload);
    RtpTrackWriter writer(1, 97, 16000, 1, 7, 0, 2);
    std::vector<std::shared_ptr<RtpPacket>> out;
    writer.Packetize(p, c.max_payload, 0, 0, 0, false, false, out);
    EXPECT_EQ(p.refused(), !c.sent) << c.size;
    ASSERT_EQ(out.size(), c.sent ? 1u : 0u) << c.size;
    EXPECT_EQ(writer.next_seq(), c.sent ? 8 : 7);
    if (c.sent) {
      EXPECT_EQ(Bytes(out[0]->UdpData() + kRtpHeaderSize, out[0]->UdpData() + out[0]->UdpSize()),
                frame);
    }
  }
}

TEST(SdpTest, H264AndAac) {
  StreamDescription d;
  d.name = "live";
  d.has_video = d.has_audio = true;
  d.video_codec = QZ_MEDIA_CODEC_ID_H264;
  d.audio_codec = QZ_MEDIA_CODEC_ID_AAC;
  d.sps = {0x67, 0x42, 0xC0, 0x1E};
  d.pps = {0x68, 0xCE, 0x3C, 0x80};
  d.audio_config = {0x12, 0x10};
  d.video_kbitrate = 2000;
  const std::string sdp = BuildSdp(d, "192.0.2.1", 7);
  EXPECT_EQ(sdp,
            "v=0\r\no=- 7 1 IN IP4 192.0.2.1\r\ns=live\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\n"
            "a=tool:qz-rtsp\r\na=range:npt=now-\r\na=control:*\r\n"
            "m=video 0 RTP/AVP 96\r\nb=AS:2000\r\na=rtpmap:96 H264/90000\r\n"
            "a=fmtp:96 packetization-mode=1;profile-level-id=42c01e;"
            "sprop-parameter-sets=Z0LAHg==,aM48gA==\r\na=control:trackID=0\r\n"
            "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/44100/2\r\n"
            "a=fmtp:97 streamtype=5;profile-level-id=1;mode=AAC-hbr;sizelength=13;indexlength=3;"
            "indexdeltalength=3;config=1210\r\na=control:trackID=1\r\n");
}

TEST(SdpTest, H265AlwaysCarriesVpsAndG711Types) {
  StreamDescription d;
  d.has_video = d.has_audio = true;
  d.video_codec = QZ_MEDIA_CODEC_ID_H265;
  d.vps = {0x40, 0x01};
  d.sps = {0x42, 0x01};
  d.pps = {0x44, 0x01};
  d.audio_codec = QZ_MEDIA_CODEC_ID_PCMU;  // no audio info: 8000 Hz mono, static type 0
  std::string sdp = BuildSdp(d, "::1", 1);
  EXPECT_NE(sdp.find("o=- 1 1 IN IP6 ::1\r\n"), std::string::npos);
  EXPECT_NE(
      sdp.find(
          "a=rtpmap:96 H265/90000\r\na=fmtp:96 sprop-vps=QAE=;sprop-sps=QgE=;sprop-pps=RAE=\r\n"),
      std::string::npos);
  EXPECT_NE(sdp.find("m=audio 0 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n"), std::string::npos);
  d.audio_codec = QZ_MEDIA_CODEC_ID_PCMA;
  d.sample_rate = 16000;
  d.channels = 2;
  sdp = BuildSdp(d, "::1", 1);
  EXPECT_NE(sdp.find("m=audio 0 RTP/AVP 97\r\na=rtpmap:97 PCMA/16000/2\r\n"), std::string::npos);
}

}  // namespace
}  // namespace qz_rtsp_internal_server
