// Creating and describing the pipes, and announcing URLs.
#include <algorithm>
#include <string>
#include <vector>

#include "tests/publisher/sinker_fixture.h"

namespace qz_test {
namespace {

using SessionTest = SinkerTest;

struct PipeCase {
  const char* name;
  std::vector<uintptr_t> servers;
  bool high_accepts, low_accepts;
  bool init_ok;
  std::vector<uintptr_t> registered;
};

const PipeCase kPipeCases[] = {
    {"both_accept", {0x2000, 0x1000}, true, true, true, {0x1000, 0x2000}},
    {"refused_and_unknown_skipped", {0x2000, 0x1000, 0x9999}, false, true, true, {0x1000}},
    {"all_refused_still_succeeds", {0x2000, 0x1000}, false, false, true, {}},
    {"no_servers_fails", {}, true, true, false, {}},
};

using PipeTest = SinkerTableTest<PipeCase>;

TEST_P(PipeTest, InitRtspOffersOnePipePerServer) {
  const PipeCase& c = GetParam();
  high_->set_accept(c.high_accepts);
  low_->set_accept(c.low_accepts);
  std::vector<void*> servers;
  for (uintptr_t h : c.servers) {
    servers.push_back(Handle(h));
  }
  MakeSinker(true, true, servers);
  peer_->SaveInitPacket(MakeAudio(0));
  peer_->SaveInitPacket(MakeVideo(0, true));
  EXPECT_EQ(peer_->InitRtsp(), c.init_ok);
  EXPECT_EQ(peer_->PipleCount(), c.registered.size());
  for (const auto& server : {low_, high_}) {
    const uintptr_t handle = reinterpret_cast<uintptr_t>(server->handle());
    EXPECT_EQ(server->offered(), std::count(c.servers.begin(), c.servers.end(), handle));
    if (std::count(c.registered.begin(), c.registered.end(), handle) == 0) {
      EXPECT_TRUE(server->pipes().empty());
      continue;
    }
    ASSERT_EQ(server->pipes().size(), 1u);
    EXPECT_EQ(peer_->Piple(server->handle()), server->pipes()[0]);
    EXPECT_EQ(server->pipes()[0]->StreamName(), "live");
  }
}

INSTANTIATE_TEST_SUITE_P(Table, PipeTest, ::testing::ValuesIn(kPipeCases), RowName());

struct DescribeCase {
  const char* name;
  QZ_MEDIA_CODEC_ID acodec;  // none: no audio packet
  Bytes config;
  int info_rate, info_channels;  // an audio info when the rate is positive
  QZ_MEDIA_CODEC_ID vcodec;      // none: no video packet
  bool key;
  const char* sets;  // of "vps sps pps", as extra data of the video packet
  bool has_video;
  int rate, channels;
  bool has_sets, has_config;
};

constexpr QZ_MEDIA_CODEC_ID kNone = QZ_MEDIA_CODEC_ID_NONE;
constexpr QZ_MEDIA_CODEC_ID kAac = QZ_MEDIA_CODEC_ID_AAC;
constexpr QZ_MEDIA_CODEC_ID kH264 = QZ_MEDIA_CODEC_ID_H264;
constexpr QZ_MEDIA_CODEC_ID kH265 = QZ_MEDIA_CODEC_ID_H265;
const Bytes kNoConfig, kBadConfig = {0x00};

// A parsed AudioSpecificConfig wins over the packet's audio info; parameter
// sets describe the stream only when a key frame brings all its codec needs.
const DescribeCase kDescribeCases[] = {
    {"aac", kAac, kAacConfig48k1, 0, 0, kNone, false, "", false, 48000, 1, false, true},
    {"aac_parsed_config_wins", kAac, kAacConfig48k1, 22050, 2, kNone, false, "", false, 48000, 1,
     false, true},
    {"aac_unparsable_config_keeps_info", kAac, kBadConfig, 22050, 2, kNone, false, "", false, 22050,
     2, false, true},
    {"pcma_with_info", QZ_MEDIA_CODEC_ID_PCMA, kNoConfig, 8000, 1, kNone, false, "", false, 8000, 1,
     false, false},
    {"speex_without_info", QZ_MEDIA_CODEC_ID_SPEEX_WB, kNoConfig, 0, 0, kNone, false, "", false, 0,
     0, false, false},
    {"h264_complete", kNone, kNoConfig, 0, 0, kH264, true, "sps pps", true, 0, 0, true, false},
    {"h264_sps_without_pps", kNone, kNoConfig, 0, 0, kH264, true, "sps", true, 0, 0, false, false},
    {"h264_non_key_gives_no_sets", kNone, kNoConfig, 0, 0, kH264, false, "sps pps", true, 0, 0,
     false, false},
    {"h265_complete", kNone, kNoConfig, 0, 0, kH265, true, "vps sps pps", true, 0, 0, true, false},
    {"h265_without_vps", kNone, kNoConfig, 0, 0, kH265, true, "sps pps", true, 0, 0, false, false},
    {"mjpeg_declares_no_video", kNone, kNoConfig, 0, 0, QZ_MEDIA_CODEC_ID_MJPEG, true, "", false, 0,
     0, false, false},
};

using DescribeTest = SinkerTableTest<DescribeCase>;

TEST_P(DescribeTest, InitRtspDescribesEveryPipe) {
  const DescribeCase& c = GetParam();
  RtspSinker& sinker = MakeSinker(true, true);
  sinker.SetVideoKBitrate(2500);
  QZ_MediaPacketRefPtr audio, video;
  if (c.acodec != kNone) {
    audio = MakeAudio(0, c.acodec);
    if (!c.config.empty()) {
      audio->SetExtraData("AudioSpecificConfig", c.config);
    }
    if (c.info_rate > 0) {
      QZMediaPacket::AudioInfo info(c.info_rate, c.info_channels);
      audio->SetAudioInfo(&info);
    }
  }
  if (c.vcodec != kNone) {
    const std::string sets = c.sets;
    const bool h265 = c.vcodec == kH265;
    auto set = [&](const char* name, const Bytes& bytes) {
      return sets.find(name) == std::string::npos ? Bytes() : bytes;
    };
    video =
        WithSets(MakeVideo(0, c.key, c.vcodec), set("vps", kH265Vps),
                 set("sps", h265 ? kH265Sps : kH264Sps), set("pps", h265 ? kH265Pps : kH264Pps));
  }
  OpenSession(audio, video);
  for (auto& server : {low_, high_}) {
    ASSERT_EQ(server->pipes().size(), 1u);
    auto piple = server->pipes()[0];
    EXPECT_EQ(piple->IsHasAudio(), c.acodec != kNone);
    EXPECT_EQ(piple->IsHasVideo(), c.has_video);
    EXPECT_EQ(piple->GetAudioCodecID(), c.acodec);
    EXPECT_EQ(piple->GetVideoCodecID(), c.has_video ? c.vcodec : kNone);
    EXPECT_EQ(piple->AudioSampleRate(), c.rate);
    EXPECT_EQ(piple->AudioChannels(), c.channels);
    EXPECT_EQ(piple->GetVideoKBitrate(), c.has_video ? 2500u : 0u);
    std::vector<unsigned char> vps, sps, pps, config;
    piple->GetVpsSpsPps(vps, sps, pps);
    piple->GetAudioSpecificConfig(config);
    EXPECT_EQ(!sps.empty(), c.has_sets);
    EXPECT_EQ(config, c.has_config ? c.config : Bytes());
  }
  EXPECT_EQ(peer_->is_setting_video_vps_sps_pps(), c.has_sets);
  EXPECT_EQ(peer_->is_setting_audio_spec_config(), c.has_config);
}

INSTANTIATE_TEST_SUITE_P(Table, DescribeTest, ::testing::ValuesIn(kDescribeCases), RowName());

// ---- URL events -----------------------------------------------------------------

TEST_F(SessionTest, UrlsAreAnnouncedOncePerPipeLowerHandleFirst) {
  MakeSinker(true, true);
  OpenSession(MakeAudio(0), MakeVideo(0, true));
  peer_->NotifyRtspURLs();
  EXPECT_TRUE(UrlEvents().empty());
  high_->pipes()[0]->SetRtspURL("rtsp://h/live");
  low_->pipes()[0]->SetRtspURL("rtsp://l/live");
  peer_->NotifyRtspURLs();
  peer_->NotifyRtspURLs();
  EXPECT_EQ(UrlEvents(), Urls({{0x1000, "rtsp://l/live"}, {0x2000, "rtsp://h/live"}}));
  // A URL changed after the announcement is not announced again.
  low_->pipes()[0]->SetRtspURL("rtsp://other/live");
  peer_->NotifyRtspURLs();
  EXPECT_TRUE(UrlEvents().empty());
}

}  // namespace
}  // namespace qz_test
