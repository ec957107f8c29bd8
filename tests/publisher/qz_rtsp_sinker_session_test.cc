// Creating and describing the pipes, pushing configuration, announcing URLs.
#include <string>
#include <vector>

#include "tests/publisher/sinker_fixture.h"
#include "topcommon/qz_event_define.h"

namespace qz_test {
namespace {

using SessionTest = SinkerTest;

QZ_MediaPacketRefPtr AacWithConfig(long long ts,
                                   const std::vector<QZ_BYTE>& config,
                                   int rate = 0,
                                   int channels = 0) {
  auto p = MakeAudio(ts);
  p->SetExtraData("AudioSpecificConfig", config);
  if (rate > 0) {
    QZMediaPacket::AudioInfo info(rate, channels);
    p->SetAudioInfo(&info);
  }
  return p;
}

QZ_MediaPacketRefPtr KeyWithSets(QZ_MEDIA_CODEC_ID codec, bool vps, bool sps, bool pps) {
  auto p = MakeVideo(0, true, codec);
  const bool h265 = codec == QZ_MEDIA_CODEC_ID_H265;
  if (vps)
    p->SetExtraData("vps", kH265Vps);
  if (sps)
    p->SetExtraData("sps", h265 ? kH265Sps : kH264Sps);
  if (pps)
    p->SetExtraData("pps", h265 ? kH265Pps : kH264Pps);
  return p;
}

TEST_F(SessionTest, PipesAreRegisteredInListOrderAndStoredByHandle) {
  MakeSinker(true, true);
  OpenSession(MakeAudio(0), MakeVideo(0, true));
  EXPECT_EQ(peer_->PipleCount(), 2u);
  ASSERT_EQ(high_->pipes().size(), 1u);
  ASSERT_EQ(low_->pipes().size(), 1u);
  EXPECT_EQ(peer_->Piple(Handle(0x1000)), low_->pipes()[0]);
  EXPECT_EQ(low_->pipes()[0]->StreamName(), "live");
}

TEST_F(SessionTest, RefusedAndUnknownHandlesAreSkipped) {
  high_->set_accept(false);
  MakeSinker(true, true, {Handle(0x2000), Handle(0x1000), Handle(0x9999)});
  OpenSession(MakeAudio(0), MakeVideo(0, true));
  EXPECT_EQ(peer_->PipleCount(), 1u);
  EXPECT_EQ(high_->offered(), 1);
  EXPECT_TRUE(high_->pipes().empty());
}

TEST_F(SessionTest, AllRefusedStillSucceedsWithoutPipes) {
  high_->set_accept(false);
  low_->set_accept(false);
  MakeSinker(true, true);
  OpenSession(MakeAudio(0), MakeVideo(0, true));
  EXPECT_EQ(peer_->PipleCount(), 0u);
}

TEST_F(SessionTest, NoServersFails) {
  MakeSinker(true, true, {});
  peer_->SaveInitPacket(MakeVideo(0, true));
  EXPECT_FALSE(peer_->InitRtsp());
  EXPECT_TRUE(log_.Contains("VartoLogIOS [I] RtspSinker::InitRtsp rtsp_servers is empty.\n"));
}

struct DescribeCase {
  const char* name;
  std::function<QZ_MediaPacketRefPtr()> audio;
  std::function<QZ_MediaPacketRefPtr()> video;
  bool has_audio, has_video;
  QZ_MEDIA_CODEC_ID acodec, vcodec;
  int rate, channels;
  bool has_sets;
  bool has_config;
};

const DescribeCase kDescribeCases[] = {
    {"audio_only_aac", [] { return AacWithConfig(0, kAacConfig48k1); }, nullptr, true, false,
     QZ_MEDIA_CODEC_ID_AAC, QZ_MEDIA_CODEC_ID_NONE, 48000, 1, false, true},
    {"aac_info_then_parsed_config_wins", [] { return AacWithConfig(0, kAacConfig48k1, 22050, 2); },
     nullptr, true, false, QZ_MEDIA_CODEC_ID_AAC, QZ_MEDIA_CODEC_ID_NONE, 48000, 1, false, true},
    {"aac_unparsable_config_keeps_info", [] { return AacWithConfig(0, {0x00}, 22050, 2); }, nullptr,
     true, false, QZ_MEDIA_CODEC_ID_AAC, QZ_MEDIA_CODEC_ID_NONE, 22050, 2, false, true},
    {"pcma_with_info",
     [] {
       auto p = MakeAudio(0, QZ_MEDIA_CODEC_ID_PCMA);
       QZMediaPacket::AudioInfo info(8000, 1);
       p->SetAudioInfo(&info);
       return p;
     },
     nullptr, true, false, QZ_MEDIA_CODEC_ID_PCMA, QZ_MEDIA_CODEC_ID_NONE, 8000, 1, false, false},
    {"speex_without_info", [] { return MakeAudio(0, QZ_MEDIA_CODEC_ID_SPEEX_WB); }, nullptr, true,
     false, QZ_MEDIA_CODEC_ID_SPEEX_WB, QZ_MEDIA_CODEC_ID_NONE, 0, 0, false, false},
    {"h264_complete", nullptr,
     [] { return KeyWithSets(QZ_MEDIA_CODEC_ID_H264, false, true, true); }, false, true,
     QZ_MEDIA_CODEC_ID_NONE, QZ_MEDIA_CODEC_ID_H264, 0, 0, true, false},
    {"h264_sps_without_pps", nullptr,
     [] { return KeyWithSets(QZ_MEDIA_CODEC_ID_H264, false, true, false); }, false, true,
     QZ_MEDIA_CODEC_ID_NONE, QZ_MEDIA_CODEC_ID_H264, 0, 0, false, false},
    {"h264_non_key_gives_no_sets", nullptr,
     [] {
       auto p = MakeVideo(0, false);
       p->SetExtraData("sps", kH264Sps);
       p->SetExtraData("pps", kH264Pps);
       return p;
     },
     false, true, QZ_MEDIA_CODEC_ID_NONE, QZ_MEDIA_CODEC_ID_H264, 0, 0, false, false},
    {"h265_complete", nullptr, [] { return KeyWithSets(QZ_MEDIA_CODEC_ID_H265, true, true, true); },
     false, true, QZ_MEDIA_CODEC_ID_NONE, QZ_MEDIA_CODEC_ID_H265, 0, 0, true, false},
    {"h265_without_vps", nullptr,
     [] { return KeyWithSets(QZ_MEDIA_CODEC_ID_H265, false, true, true); }, false, true,
     QZ_MEDIA_CODEC_ID_NONE, QZ_MEDIA_CODEC_ID_H265, 0, 0, false, false},
    {"mjpeg_declares_no_video", nullptr, [] { return MakeVideo(0, true, QZ_MEDIA_CODEC_ID_MJPEG); },
     false, false, QZ_MEDIA_CODEC_ID_NONE, QZ_MEDIA_CODEC_ID_NONE, 0, 0, false, false},
};

class DescribeTest : public SinkerTest, public ::testing::WithParamInterface<DescribeCase> {};

TEST_P(DescribeTest, InitRtspDescribesEveryPipe) {
  const DescribeCase& c = GetParam();
  RtspSinker& sinker = MakeSinker(true, true);
  sinker.SetVideoKBitrate(2500);
  OpenSession(c.audio ? c.audio() : nullptr, c.video ? c.video() : nullptr);
  for (auto& server : {low_, high_}) {
    ASSERT_EQ(server->pipes().size(), 1u);
    auto piple = server->pipes()[0];
    EXPECT_EQ(piple->IsHasAudio(), c.has_audio);
    EXPECT_EQ(piple->IsHasVideo(), c.has_video);
    EXPECT_EQ(piple->GetAudioCodecID(), c.acodec);
    EXPECT_EQ(piple->GetVideoCodecID(), c.vcodec);
    EXPECT_EQ(piple->AudioSampleRate(), c.rate);
    EXPECT_EQ(piple->AudioChannels(), c.channels);
    EXPECT_EQ(piple->GetVideoKBitrate(), c.has_video ? 2500u : 0u);
    std::vector<unsigned char> vps, sps, pps, config;
    piple->GetVpsSpsPps(vps, sps, pps);
    piple->GetAudioSpecificConfig(config);
    EXPECT_EQ(!sps.empty(), c.has_sets);
    EXPECT_EQ(!config.empty(), c.has_config);
  }
  EXPECT_EQ(peer_->is_setting_video_vps_sps_pps(), c.has_sets);
  EXPECT_EQ(peer_->is_setting_audio_spec_config(), c.has_config);
}

INSTANTIATE_TEST_SUITE_P(Table,
                         DescribeTest,
                         ::testing::ValuesIn(kDescribeCases),
                         [](const ::testing::TestParamInfo<DescribeCase>& info) {
                           return std::string(info.param.name);
                         });

TEST_F(SessionTest, ParsedAacConfigIsLoggedOncePerPipeAndStored) {
  MakeSinker(true, false);
  OpenSession(AacWithConfig(0, kAacConfig48k1), nullptr);
  EXPECT_EQ(
      log_.Matching(
              "VartoLogIOS [I] RtspSinker::InitRtsp parser config, sample_rate=48000, channels=1\n")
          .size(),
      2u);
  EXPECT_EQ(peer_->sample_rate(), 48000);
  EXPECT_EQ(peer_->channels(), 1);
  EXPECT_EQ(peer_->audio_specific_config(), kAacConfig48k1);
}

TEST_F(SessionTest, UnInitWithdrawsOnceInHandleOrder) {
  MakeSinker(true, true);
  OpenSession(MakeAudio(0), MakeVideo(0, true));
  peer_->UnInitRtsp();
  peer_->UnInitRtsp();
  EXPECT_EQ(low_->withdrawn().size(), 1u);
  EXPECT_EQ(high_->withdrawn().size(), 1u);
  EXPECT_EQ(peer_->PipleCount(), 0u);
}

TEST_F(SessionTest, ConfigurationOperationsRejectEmptyInput) {
  MakeSinker(true, true);
  OpenSession(MakeAudio(0), MakeVideo(0, true));
  log_.Clear();
  peer_->SetSpsPps({}, {});
  peer_->SetSpsPps(kH264Sps, {});
  peer_->SetVpsSpsPps({}, kH265Sps, kH265Pps);
  peer_->SetVpsSpsPps(kH265Vps, {}, {});
  peer_->SetVpsSpsPps(kH265Vps, kH265Sps, {});
  peer_->SetAACAudioSpecificConfig({});
  EXPECT_EQ(log_.lines(), std::vector<std::string>(
                              {"VartoLogIOS [E] SetVpsSpsPps sps is empty\n",
                               "VartoLogIOS [E] SetVpsSpsPps pps is empty\n",
                               "VartoLogIOS [E] SetVpsSpsPps vps is empty\n",
                               "VartoLogIOS [E] SetVpsSpsPps sps is empty\n",
                               "VartoLogIOS [E] SetVpsSpsPps pps is empty\n",
                               "VartoLogIOS [E] RtspSinker aac, AudioSpecificConfig is empty\n"}));
  std::vector<unsigned char> sps, pps;
  low_->pipes()[0]->GetSpsPps(sps, pps);
  EXPECT_TRUE(sps.empty());
}

TEST_F(SessionTest, UnparsableAacConfigReachesPipesWithoutNewInfo) {
  MakeSinker(true, false);
  OpenSession(AacWithConfig(0, kAacConfig44k2), nullptr);
  log_.Clear();
  peer_->SetAACAudioSpecificConfig({0xFF});
  EXPECT_TRUE(log_.lines().empty());
  std::vector<unsigned char> config;
  low_->pipes()[0]->GetAudioSpecificConfig(config);
  EXPECT_EQ(config, std::vector<unsigned char>({0xFF}));
  EXPECT_EQ(low_->pipes()[0]->AudioSampleRate(), 44100);
  EXPECT_EQ(peer_->sample_rate(), 44100);
}

// ---- URL events -----------------------------------------------------------------

std::vector<std::pair<QZ_UINT64, std::string>> UrlEvents(qz_top_common::EventMgr& events) {
  std::vector<std::pair<QZ_UINT64, std::string>> out;
  while (qz_top_common::InnerEvent* e = events.PopEvent()) {
    EXPECT_EQ(e->id_, static_cast<QZ_UINT32>(EVENT_KESTRAVOX_ERC_PUBLISHER_RTSP_URL));
    EXPECT_EQ(e->param2_, 0u);
    EXPECT_EQ(e->param4_, "");
    EXPECT_EQ(e->param5_, nullptr);
    out.emplace_back(e->param1_, e->param3_);
    events.DeleteEvent(e);
  }
  return out;
}

TEST_F(SessionTest, UrlsAreAnnouncedOncePerPipeLowerHandleFirst) {
  MakeSinker(true, true);
  OpenSession(MakeAudio(0), MakeVideo(0, true));
  peer_->NotifyRtspURLs();
  EXPECT_TRUE(UrlEvents(events_).empty());
  high_->pipes()[0]->SetRtspURL("rtsp://h/live");
  low_->pipes()[0]->SetRtspURL("rtsp://l/live");
  log_.Clear();
  peer_->NotifyRtspURLs();
  peer_->NotifyRtspURLs();
  const auto events = UrlEvents(events_);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0], std::make_pair(QZ_UINT64{0x1000}, std::string("rtsp://l/live")));
  EXPECT_EQ(events[1], std::make_pair(QZ_UINT64{0x2000}, std::string("rtsp://h/live")));
  char expected[128];
  snprintf(expected, sizeof(expected),
           "VartoLogIOS [I] RtspSinker::FireRtspURLEvent++ rtsp_server_handle:%p, rtsp_url:%s\n",
           Handle(0x1000), "rtsp://l/live");
  ASSERT_EQ(log_.lines().size(), 4u);
  EXPECT_EQ(log_.lines()[0], expected);
  EXPECT_EQ(log_.lines()[1], "VartoLogIOS [I] RtspSinker::FireRtspURLEvent--\n");
  // A URL changed after the announcement is not announced again.
  low_->pipes()[0]->SetRtspURL("rtsp://other/live");
  peer_->NotifyRtspURLs();
  EXPECT_TRUE(UrlEvents(events_).empty());
}

TEST_F(SessionTest, UrlSetLateIsAnnouncedByTheNextPacket) {
  RtspSinker& sinker = MakeSinker(false, true, {Handle(0x1000)});
  sinker.PushPacket(MakeVideo(0, true));
  ASSERT_TRUE(sinker.Start());
  for (int i = 1; i <= 100; ++i) {
    sinker.PushPacket(MakeVideo(i * 10, false));
  }
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 101; }));
  EXPECT_TRUE(UrlEvents(events_).empty());
  low_->pipes()[0]->SetRtspURL("rtsp://late/live");
  sinker.PushPacket(MakeVideo(5000, false));
  sinker.PushPacket(MakeVideo(5040, false));
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 103; }));
  sinker.Stop();
  EXPECT_EQ(UrlEvents(events_).size(), 1u);
}

}  // namespace
}  // namespace qz_test
