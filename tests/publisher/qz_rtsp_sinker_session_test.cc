// Creating and describing the pipes, announcing URLs, and the AAC, G.711 and
// Speex send paths.
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

constexpr QZ_MEDIA_CODEC_ID kNone = QZ_MEDIA_CODEC_ID_NONE;
constexpr QZ_MEDIA_CODEC_ID kAac = QZ_MEDIA_CODEC_ID_AAC;
constexpr QZ_MEDIA_CODEC_ID kH264 = QZ_MEDIA_CODEC_ID_H264;
constexpr QZ_MEDIA_CODEC_ID kH265 = QZ_MEDIA_CODEC_ID_H265;

struct DescribeCase {
  const char* name;
  QZ_MEDIA_CODEC_ID vcodec;  // none: no video packet
  bool key;
  const char* sets;  // of "vps sps pps", as extra data of the video packet
  bool has_sets;
  QZ_MEDIA_CODEC_ID acodec = kNone;  // none: no audio packet
  Bytes config = {};                 // the AudioSpecificConfig, described as it is
  int info_rate = 0, info_channels = 0;
  int rate = 0, channels = 0;
};

// A parsed AudioSpecificConfig wins over the packet's audio info; parameter
// sets describe the stream only when a key frame brings all its codec needs.
// Only H.264 and H.265 declare video.
const DescribeCase kDescribeCases[] = {
    {"aac", kNone, false, "", false, kAac, kAacConfig48k1, 0, 0, 48000, 1},
    {"aac_parsed_config_wins", kNone, false, "", false, kAac, kAacConfig48k1, 22050, 2, 48000, 1},
    {"aac_unparsable_config_keeps_info", kNone, false, "", false, kAac, {0x00}, 22050, 2, 22050, 2},
    {"pcma_with_info", kNone, false, "", false, QZ_MEDIA_CODEC_ID_PCMA, {}, 8000, 1, 8000, 1},
    {"speex_without_info", kNone, false, "", false, QZ_MEDIA_CODEC_ID_SPEEX_WB},
    {"h264_complete", kH264, true, "sps pps", true},
    {"h264_sps_without_pps", kH264, true, "sps", false},
    {"h264_non_key_gives_no_sets", kH264, false, "sps pps", false},
    {"h265_complete", kH265, true, "vps sps pps", true},
    {"h265_without_vps", kH265, true, "sps pps", false},
    {"mjpeg_declares_no_video", QZ_MEDIA_CODEC_ID_MJPEG, true, "", false},
};

using DescribeTest = SinkerTableTest<DescribeCase>;

TEST_P(DescribeTest, InitRtspDescribesEveryPipe) {
  const DescribeCase& c = GetParam();
  RtspSinker& sinker = MakeSinker(true, true);
  sinker.SetVideoKBitrate(2500);
  QZ_MediaPacketRefPtr audio, video;
  if (c.acodec != kNone) {
    audio = Audio(0, c.config, c.info_rate, c.info_channels, c.acodec);
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
  const bool has_video = c.vcodec == kH264 || c.vcodec == kH265;
  for (auto& server : {low_, high_}) {
    ASSERT_EQ(server->pipes().size(), 1u);
    auto piple = server->pipes()[0];
    EXPECT_EQ(piple->IsHasAudio(), c.acodec != kNone);
    EXPECT_EQ(piple->IsHasVideo(), has_video);
    EXPECT_EQ(piple->GetAudioCodecID(), c.acodec);
    EXPECT_EQ(piple->GetVideoCodecID(), has_video ? c.vcodec : kNone);
    EXPECT_EQ(piple->AudioSampleRate(), c.rate);
    EXPECT_EQ(piple->AudioChannels(), c.channels);
    EXPECT_EQ(piple->GetVideoKBitrate(), has_video ? 2500u : 0u);
    std::vector<unsigned char> vps, sps, pps, config;
    piple->GetVpsSpsPps(vps, sps, pps);
    piple->GetAudioSpecificConfig(config);
    EXPECT_EQ(!sps.empty(), c.has_sets);
    EXPECT_EQ(config, c.config);
  }
  EXPECT_EQ(peer_->is_setting_video_vps_sps_pps(), c.has_sets);
  EXPECT_EQ(peer_->is_setting_audio_spec_config(), !c.config.empty());
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

// ---- audio send paths ----------------------------------------------------------

const std::string kChanged =
    "VartoLogIOS [I] RtspSinker auido config changed, need to re-send it\n";

TEST_F(SessionTest, AacConfigIsPushedBeforeTheFrameThatCarriesIt) {
  MakeSinker(true, false);
  OpenSession(Audio(0, kAacConfig44k2), nullptr, /*origin=*/1000);
  log_.Clear();
  peer_->SendAudioPacket(Audio(1000, kAacConfig44k2));  // same as InitRtsp pushed
  EXPECT_TRUE(log_.Matching(kChanged).empty());
  peer_->SendAudioPacket(Audio(1023, kAacConfig48k1));      // changed
  peer_->SendAudioPacket(Audio(1046, kAacConfig48k1));      // same again
  peer_->SendAudioPacket(Audio(1069, {}));                  // none: keeps the stored one
  peer_->SendAudioPacket(Audio(1092, {0x11, 0x88, 0x00}));  // longer only
  peer_->SendAudioPacket(Audio(1115, {0xFF}));              // unparsable
  EXPECT_EQ(log_.Matching(kChanged).size(), 3u);
  const auto audio = low_->audio();
  ASSERT_EQ(audio.size(), 6u);
  EXPECT_EQ(audio[0].config, kAacConfig44k2);
  EXPECT_EQ(audio[1].config, kAacConfig48k1);  // the pipe had it when the frame arrived
  EXPECT_EQ(audio[1].sample_rate, 48000);
  EXPECT_EQ(audio[1].channels, 1);
  EXPECT_EQ(audio[3].config, kAacConfig48k1);
  EXPECT_EQ(audio[4].config, std::vector<unsigned char>({0x11, 0x88, 0x00}));
  // An unparsable configuration still reaches the pipes; the rate stays.
  EXPECT_EQ(audio[5].config, std::vector<unsigned char>({0xFF}));
  EXPECT_EQ(audio[5].sample_rate, 48000);
  EXPECT_EQ(audio[5].record->sample_rate_, 48000);
  EXPECT_EQ(audio[0].record->time_stamp_, 0u);
  EXPECT_EQ(audio[1].record->time_stamp_, 23u);
}

struct FrameCase {
  const char* name;
  QZ_MEDIA_CODEC_ID codec;
  int info_rate, info_channels;  // an audio info unless both are 0
  int rate, channels;            // expected in the record; 0: no record
};

// An audio info overrides the rate of the codec (for AAC the configuration's,
// here the default 44100 Hz stereo); G.711 and Speex ignore one below 1.
const FrameCase kFrameCases[] = {
    {"aac_default", QZ_MEDIA_CODEC_ID_AAC, 0, 0, 44100, 2},
    {"aac_with_info", QZ_MEDIA_CODEC_ID_AAC, 16000, 1, 16000, 1},
    {"pcma_default", QZ_MEDIA_CODEC_ID_PCMA, 0, 0, 8000, 1},
    {"pcmu_default", QZ_MEDIA_CODEC_ID_PCMU, 0, 0, 8000, 1},
    {"pcma_with_info", QZ_MEDIA_CODEC_ID_PCMA, 16000, 2, 16000, 2},
    {"pcmu_zero_rate_ignored", QZ_MEDIA_CODEC_ID_PCMU, 0, 1, 8000, 1},
    {"speex_wb_default", QZ_MEDIA_CODEC_ID_SPEEX_WB, 0, 0, 16000, 1},
    {"speex_nb_ignored", QZ_MEDIA_CODEC_ID_SPEEX_NB, 0, 0, 0, 0},
    {"speex_uwb_ignored", QZ_MEDIA_CODEC_ID_SPEEX_UWB, 0, 0, 0, 0},
};

using FrameTest = SinkerTableTest<FrameCase>;

TEST_P(FrameTest, FramesBecomeRecords) {
  const FrameCase& c = GetParam();
  MakeSinker(true, false);
  OpenSession(MakeAudio(0, c.codec), nullptr, /*origin=*/10);
  log_.Clear();
  peer_->SendAudioPacket(Audio(30, {}, c.info_rate, c.info_channels, c.codec));
  EXPECT_TRUE(log_.lines().empty());
  const auto audio = low_->audio();
  ASSERT_EQ(audio.size(), c.rate == 0 ? 0u : 1u);
  if (c.rate == 0) {
    return;
  }
  const auto& record = *audio[0].record;
  EXPECT_EQ(record.codec_id_, c.codec);
  EXPECT_EQ(record.sample_rate_, c.rate);
  EXPECT_EQ(record.channels_, c.channels);
  EXPECT_EQ(record.time_stamp_, 20u);
  EXPECT_FALSE(record.extra_data_);
  ASSERT_TRUE(record.data_);
  EXPECT_EQ(Bytes(record.data_->data_.get(), record.data_->data_.get() + record.data_->size_),
            Bytes({0x21, 0x10, 0x05, 0x00}));
  // One record object, one buffer, for both pipes.
  EXPECT_EQ(high_->audio()[0].record.get(), audio[0].record.get());
}

INSTANTIATE_TEST_SUITE_P(Table, FrameTest, ::testing::ValuesIn(kFrameCases), RowName());

}  // namespace
}  // namespace qz_test
