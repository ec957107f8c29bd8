#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"

#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/fakes/test_support.h"

namespace {

using namespace qz_rtsp_internal_server;  // NOLINT: the whole API is under test

// Keeps what it receives; with `detach_from` set, detaches itself from that
// pipe during its first delivery.
class CountingVideoSinker : public QZRtspVideoSinker {
 public:
  void OnRtspPacket(const std::shared_ptr<QZRtspVideoPacket>& packet) override {
    received.push_back(packet);
    if (detach_from != nullptr) {
      detach_from->RemoveVideoSinker(self);
      self.reset();
    }
  }
  std::vector<std::shared_ptr<QZRtspVideoPacket>> received;
  QZRtspPacketPiple* detach_from = nullptr;
  std::shared_ptr<QZRtspVideoSinker> self;
};

// A new pipe has its name and no URL; a setter replaces what was there.
TEST(QZRtspPacketPipleTest, NewPipeIsBlankAndSettersReplace) {
  QZRtspPacketPiple piple("live");
  EXPECT_EQ(piple.StreamName(), "live");
  EXPECT_FALSE(piple.IsNotifiedRtspURL());
  EXPECT_EQ(piple.GetRtspURL(), "");
  const std::vector<QZ_BYTE> sps = {0x67, 3, 3}, pps = {0x68, 4};
  piple.SetSpsPps(sps.data(), 3, sps.data(), 3);
  piple.SetSpsPps(sps.data(), 3, pps.data(), 2);
  std::vector<unsigned char> out_sps, out_pps;
  piple.GetSpsPps(out_sps, out_pps);
  EXPECT_EQ(out_sps, sps);
  EXPECT_EQ(out_pps, pps);
}

// Whether a pipe is described well enough for an SDP, and the codec
// predicates of the pipe (a medium declared with that codec) and of records
// (their codec alone).
struct ConfigCase {
  const char* name;
  bool audio, video;
  QZ_MEDIA_CODEC_ID acodec, vcodec;
  bool with_sets, with_config;
  bool complete;
};

constexpr QZ_MEDIA_CODEC_ID kNone = QZ_MEDIA_CODEC_ID_NONE, kAac = QZ_MEDIA_CODEC_ID_AAC,
                            kH264 = QZ_MEDIA_CODEC_ID_H264, kH265 = QZ_MEDIA_CODEC_ID_H265,
                            kPcma = QZ_MEDIA_CODEC_ID_PCMA, kPcmu = QZ_MEDIA_CODEC_ID_PCMU;

const ConfigCase kConfigCases[] = {
    {"nothing_declared", false, false, kAac, kH264, true, true, false},
    {"h264_with_sets", false, true, kNone, kH264, true, false, true},
    {"h264_without_sets", false, true, kNone, kH264, false, false, false},
    {"h265_with_sets", false, true, kNone, kH265, true, false, true},
    {"mjpeg", false, true, kNone, QZ_MEDIA_CODEC_ID_MJPEG, true, false, false},
    {"aac_without_config", true, false, kAac, kNone, false, false, false},
    {"aac_with_config", true, false, kAac, kNone, false, true, true},
    {"pcma", true, false, kPcma, kNone, false, false, true},
    {"pcmu", true, false, kPcmu, kNone, false, false, true},
    {"h264_and_aac_missing_config", true, true, kAac, kH264, true, false, false},
};

class PipeConfigTest : public ::testing::TestWithParam<ConfigCase> {};

TEST_P(PipeConfigTest, IsHasAVConfig) {
  const ConfigCase& c = GetParam();
  QZRtspPacketPiple piple("s");
  piple.IsHasAudio(c.audio);
  piple.IsHasVideo(c.video);
  piple.SetAudioCodecID(c.acodec);
  piple.SetVideoCodecID(c.vcodec);
  const QZ_BYTE set[] = {0x40, 1};
  if (c.with_sets) {
    piple.SetVpsSpsPps(set, 2, set, 2, set, 2);
  }
  if (c.with_config) {
    const QZ_BYTE config[] = {0x12, 0x10};
    piple.SetAudioSpecificConfig(config, 2);
  }
  EXPECT_EQ(piple.IsHasAVConfig(), c.complete);
  EXPECT_EQ(piple.IsHasH264(), c.video && c.vcodec == kH264);
  EXPECT_EQ(piple.IsHasAAC(), c.audio && c.acodec == kAac);
  EXPECT_EQ(piple.IsHasPCMA(), c.audio && c.acodec == kPcma);
  QZRtspVideoPacket video;
  video.codec_id_ = c.vcodec;
  EXPECT_EQ(video.IsH265(), c.vcodec == kH265);
  QZRtspAudioPacket audio;
  audio.codec_id_ = c.acodec;
  EXPECT_EQ(audio.IsPCMU(), c.acodec == kPcmu);
}

INSTANTIATE_TEST_SUITE_P(Table,
                         PipeConfigTest,
                         ::testing::ValuesIn(kConfigCases),
                         qz_test::RowName());

// Every live consumer gets the posted record itself, once however often it
// was added. A consumer may detach itself from inside its callback: the pipe
// calls out without holding its consumer lock. The pipe keeps no consumer
// alive.
TEST(QZRtspPacketPipleTest, PostReachesLiveConsumersOnce) {
  QZRtspPacketPiple piple("s");
  auto a = std::make_shared<CountingVideoSinker>();
  auto b = std::make_shared<CountingVideoSinker>();
  auto self_removing = std::make_shared<CountingVideoSinker>();
  self_removing->detach_from = &piple;
  self_removing->self = self_removing;
  std::shared_ptr<QZRtspVideoSinker> a_base = a, b_base = b;
  piple.AddVideoSinker(a_base);
  piple.AddVideoSinker(a_base);  // twice: still one delivery
  piple.AddVideoSinker(b_base);
  piple.AddVideoSinker(self_removing->self);
  auto record = std::make_shared<QZRtspVideoPacket>();
  piple.PostVideoPacket(record);
  ASSERT_EQ(a->received.size(), 1u);
  EXPECT_EQ(a->received[0].get(), record.get());
  EXPECT_EQ(b->received[0].get(), record.get());

  piple.RemoveVideoSinker(a_base);
  b_base.reset();
  b.reset();
  piple.PostVideoPacket(record);
  EXPECT_EQ(a->received.size(), 1u);
  EXPECT_EQ(self_removing->received.size(), 1u);
}

TEST(QZRtspPacketPipleTest, ConcurrentDescribeAndPost) {
  QZRtspPacketPiple piple("s");
  auto sinker = std::make_shared<CountingVideoSinker>();
  std::shared_ptr<QZRtspVideoSinker> base = sinker;
  std::thread writer([&piple] {
    const QZ_BYTE set[] = {0x67, 1, 2};
    for (int i = 0; i < 2000; ++i) {
      piple.SetSpsPps(set, 3, set, 3);
      piple.SetRtspURL("rtsp://x/" + std::to_string(i));
    }
  });
  std::thread reader([&piple, &base] {
    for (int i = 0; i < 2000; ++i) {
      std::vector<unsigned char> sps, pps;
      piple.GetSpsPps(sps, pps);
      (void)piple.GetRtspURL();
      (void)piple.IsHasAVConfig();
      if (i % 2 == 0) {
        piple.AddVideoSinker(base);
      } else {
        piple.RemoveVideoSinker(base);
      }
    }
  });
  auto record = std::make_shared<QZRtspVideoPacket>();
  for (int i = 0; i < 2000; ++i) {
    piple.PostVideoPacket(record);
  }
  writer.join();
  reader.join();
  EXPECT_EQ(piple.GetRtspURL(), "rtsp://x/1999");
}

}  // namespace
