// Every payload format through the track writer: payload sizes and golden
// bytes, the RTP header of each packet, its marker bit and RTP time. And the
// SDP.
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "gmock/gmock.h"
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
using qz_test::PacketData;
using ::testing::HasSubstr;
using Units = std::list<std::shared_ptr<QZRtspPacketData>>;
const size_t kMax = 1400;

Bytes Filled(uint8_t header, size_t size) {
  Bytes b(size);
  for (size_t i = 0; i < size; ++i)
    b[i] = static_cast<uint8_t>(i * 7 + 1);
  b[0] = header;
  return b;
}

uint32_t Be(const uint8_t* p, int n) {
  uint32_t v = 0;
  for (int i = 0; i < n; ++i)
    v = v << 8 | p[i];
  return v;
}

Bytes Cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// What a case packetizes, fresh for each unit.
struct Source {
  std::function<RtpPayloadPacketizer*()> make;
  bool video;
};
template <typename P, typename... A>
Source Of(bool video, A... args) {
  return {[=] { return new P(args...); }, video};
}
const auto H264 = [](Units u) { return Of<H264Packetizer>(true, u, kMax); };
const auto H265 = [](Units u) { return Of<H265Packetizer>(true, u, kMax); };
const auto Aac = [](Bytes f) { return Of<AacPacketizer>(false, PacketData(f), kMax); };
const auto Speex = [](Bytes f) { return Of<SpeexPacketizer>(false, PacketData(f), kMax); };

// One packet: payload size, RTP time past the unit's, and the marker bit
// ('M') in the track's first unit and in the next one.
struct Packet {
  size_t size;
  uint32_t offset;
  const char* markers;
};

// Golden bytes: payload i begins with heads[i]; `prefix` and the payloads
// less `skip` bytes each make up `unit`.
struct Golden {
  Bytes unit;
  size_t skip = 0;
  Bytes prefix = {};
  std::vector<Bytes> heads = {};
};

struct PacketizeCase {
  const char* name;
  Source source;
  std::vector<Packet> packets;
  Golden golden;
};

const Bytes kSps = {0x67, 0x42, 0x00, 0x1E}, kPps = {0x68, 0xCE, 0x3C};
// STAP-A: F=0 NRI=11 (highest of the units) type 24, then a 16-bit size and
// the unit for each; the access unit delimiter is not sent.
const Bytes kStap = {0x78, 0, 4, 0x67, 0x42, 0, 0x1E, 0, 3, 0x68, 0xCE, 0x3C};
const Bytes kIdr100 = Filled(0x65, 100), kIdr3001 = Filled(0x65, 3001);
const Bytes kSlice1400 = Filled(0x41, 1400);
// H.265 IDR_W_RADL (type 19) with LayerId 33 and TID 2: header 0x27 0x0A.
const Bytes kH265Idr = Cat({0x27, 0x0A}, Bytes(Filled(0, 1998)));
const Bytes kAac300 = Filled(0x21, 300), kAac2000 = Filled(0x21, 2000);
const Bytes kG711 = Filled(0xD5, 3000);
const Bytes kSpeex70 = Filled(0x1E, 70), kSpeex1400 = Filled(0x1E, 1400);

const PacketizeCase kCases[] = {
    {"h264_stap_a_then_single_unit",
     H264({PacketData({0x09, 0x30}), PacketData(kSps), PacketData(kPps), PacketData(kIdr100)}),
     {{12, 0, ".."}, {100, 0, "MM"}},
     {Cat(kStap, kIdr100), 0, {}, {kStap}}},
    // FU indicator F=0 NRI=11 type 28; FU header S E R type: S, -, E.
    {"h264_fu_a",
     H264({PacketData(kIdr3001)}),
     {{1400, 0, ".."}, {1400, 0, ".."}, {2 + 3000 - 2 * 1398, 0, "MM"}},
     {kIdr3001, 2, {0x65}, {{0x7C, 0x85}, {0x7C, 0x05}, {0x7C, 0x45}}}},
    {"h264_unit_at_the_limit", H264({PacketData(kSlice1400)}), {{1400, 0, "MM"}}, {kSlice1400}},
    // PayloadHdr: F | type 49 | LayerId | TID; FU header S/E | FuType. The
    // AUD (type 35) is not sent.
    {"h265_fu_keeps_layer_id_and_tid",
     H265({PacketData({0x46, 0x01, 0x50}), PacketData(kH265Idr)}),
     {{1400, 0, ".."}, {3 + 1998 - 1397, 0, "MM"}},
     {kH265Idr, 3, {0x27, 0x0A}, {{0x63, 0x0A, 0x80 | 19}, {0x63, 0x0A, 0x40 | 19}}}},
    // AAC-hbr: AU-headers-length 16 bits, AU header size << 3 | index 0, in
    // every fragment; the marker bit ends an AU.
    {"aac_whole_au", Aac(kAac300), {{304, 0, "MM"}}, {kAac300, 4, {}, {{0x00, 0x10, 0x09, 0x60}}}},
    {"aac_fragmented_au",
     Aac(kAac2000),
     {{1400, 0, ".."}, {4 + 2000 - 1396, 0, "MM"}},
     {kAac2000, 4, {}, {{0x00, 0x10, 0x3E, 0x80}, {0x00, 0x10, 0x3E, 0x80}}}},
    {"aac_au_beyond_13_bits_not_sent", Aac(Filled(0x21, 8192)), {}, {}},
    // G.711 at 1399 bytes a payload, stereo: a packet ends on a sample of
    // both channels and is stamped with its first sample's time; only the
    // track's first packet is marked.
    {"g711_split_on_samples",
     Of<G711Packetizer>(false, PacketData(kG711), size_t{1399}, size_t{2}),
     {{1398, 0, "M."}, {1398, 699, ".."}, {204, 1398, ".."}},
     {kG711}},
    // Speex: a record goes whole into one packet or not at all.
    {"speex_record", Speex(kSpeex70), {{70, 0, "M."}}, {kSpeex70}},
    {"speex_record_at_the_limit", Speex(kSpeex1400), {{1400, 0, "M."}}, {kSpeex1400}},
    {"speex_record_over_the_limit_not_sent", Speex(Filled(0x1E, 1401)), {}, {}},
};

TEST(RtpPacketizeTest, PayloadsHeadersMarkersAndTimes) {
  for (const PacketizeCase& c : kCases) {
    SCOPED_TRACE(c.name);
    RtpTrackWriter writer(1, 97, 90000, 0x11223344, 0xFFFE, 1000, 2);
    ASSERT_EQ(writer.RtpTime(40, 0), 1000u + 40 * 90);
    uint16_t seq = 0xFFFE;  // wraps within the case
    size_t octets = 0;
    for (int unit = 0; unit < 2; ++unit) {
      const uint32_t unit_time = 0xFFFFF800u + 3600u * unit;  // wraps inside a split G.711 frame
      std::vector<std::shared_ptr<RtpPacket>> out;
      std::unique_ptr<RtpPayloadPacketizer> packetizer(c.source.make());
      writer.Packetize(*packetizer, kMax, unit_time, 40 * unit, 0, c.source.video, true, out);
      ASSERT_EQ(out.size(), c.packets.size());
      Bytes joined = c.golden.prefix;
      for (size_t i = 0; i < out.size(); ++i, ++seq) {
        const RtpPacket& k = *out[i];
        const Packet& want = c.packets[i];
        const bool m = want.markers[unit] == 'M';
        const uint32_t ts = unit_time + want.offset;
        ASSERT_EQ(k.TcpSize(), kInterleavedHeaderSize + kRtpHeaderSize + want.size) << i;
        // '$', channel, length; V=2 | M PT | sequence | timestamp | SSRC.
        const uint8_t* h = k.TcpData();
        EXPECT_EQ(Be(h, 4), 0x24020000u | static_cast<uint32_t>(kRtpHeaderSize + want.size));
        EXPECT_EQ(Be(h + 4, 4), 0x80000000u | (m ? 0x800000u : 0) | 97u << 16 | seq) << i;
        EXPECT_EQ(Be(h + 8, 4), ts) << i;
        EXPECT_EQ(Be(h + 12, 4), 0x11223344u);
        EXPECT_EQ(
            std::make_tuple(k.seq, k.rtp_time, k.record_rtp_time, k.marker, k.key_frame_start),
            std::make_tuple(seq, ts, unit_time, m, c.source.video && i == 0));
        const uint8_t* payload = k.UdpData() + kRtpHeaderSize;
        if (i < c.golden.heads.size()) {
          EXPECT_EQ(Bytes(payload, payload + c.golden.heads[i].size()), c.golden.heads[i]);
        }
        joined.insert(joined.end(), payload + c.golden.skip, payload + want.size);
        octets += want.size;
      }
      if (!out.empty()) {
        EXPECT_EQ(joined, c.golden.unit);
        EXPECT_EQ(writer.last_rtp_time(), unit_time);  // what a sender report maps
      }
    }
    EXPECT_EQ(writer.next_seq(), seq);
    EXPECT_EQ(writer.packet_count(), 2 * c.packets.size());
    EXPECT_EQ(writer.octet_count(), octets);
  }
}

// H.264 and AAC in full; H.265 always carries its VPS, and G.711 takes the
// static type only at 8000 Hz mono.
TEST(SdpTest, DescribesEachCodec) {
  StreamDescription d;
  d.name = "live";
  d.has_video = d.has_audio = true;
  d.video_codec = QZ_MEDIA_CODEC_ID_H264;
  d.audio_codec = QZ_MEDIA_CODEC_ID_AAC;
  d.sps = {0x67, 0x42, 0xC0, 0x1E};
  d.pps = {0x68, 0xCE, 0x3C, 0x80};
  d.audio_config = {0x12, 0x10};
  d.video_kbitrate = 2000;
  std::string sdp = BuildSdp(d, "192.0.2.1", 7);
  EXPECT_EQ(sdp,
            "v=0\r\no=- 7 1 IN IP4 192.0.2.1\r\ns=live\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\n"
            "a=tool:qz-rtsp\r\na=range:npt=now-\r\na=control:*\r\n"
            "m=video 0 RTP/AVP 96\r\nb=AS:2000\r\na=rtpmap:96 H264/90000\r\n"
            "a=fmtp:96 packetization-mode=1;profile-level-id=42c01e;"
            "sprop-parameter-sets=Z0LAHg==,aM48gA==\r\na=control:trackID=0\r\n"
            "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/44100/2\r\n"
            "a=fmtp:97 streamtype=5;profile-level-id=1;mode=AAC-hbr;sizelength=13;indexlength=3;"
            "indexdeltalength=3;config=1210\r\na=control:trackID=1\r\n");
  d.video_codec = QZ_MEDIA_CODEC_ID_H265;
  d.vps = {0x40, 0x01};
  d.sps = {0x42, 0x01};
  d.pps = {0x44, 0x01};
  d.audio_codec = QZ_MEDIA_CODEC_ID_PCMU;  // no audio info: 8000 Hz mono, static type 0
  sdp = BuildSdp(d, "::1", 1);
  EXPECT_THAT(sdp, HasSubstr("o=- 1 1 IN IP6 ::1\r\n"));
  EXPECT_THAT(sdp, HasSubstr("a=rtpmap:96 H265/90000\r\n"
                             "a=fmtp:96 sprop-vps=QAE=;sprop-sps=QgE=;sprop-pps=RAE=\r\n"));
  EXPECT_THAT(sdp, HasSubstr("m=audio 0 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n"));
  d.audio_codec = QZ_MEDIA_CODEC_ID_PCMA;
  d.sample_rate = 16000;
  d.channels = 2;
  sdp = BuildSdp(d, "::1", 1);
  EXPECT_THAT(sdp, HasSubstr("m=audio 0 RTP/AVP 97\r\na=rtpmap:97 PCMA/16000/2\r\n"));
}

}  // namespace
}  // namespace qz_rtsp_internal_server
