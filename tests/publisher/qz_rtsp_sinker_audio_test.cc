// The AAC, G.711 and Speex send paths.
#include <string>
#include <vector>

#include "tests/publisher/sinker_fixture.h"

namespace qz_test {
namespace {

using AudioTest = SinkerTest;

QZ_MediaPacketRefPtr Aac(long long ts,
                         const std::vector<QZ_BYTE>& config,
                         int rate = 0,
                         int channels = 0) {
  auto p = MakeAudio(ts);
  if (!config.empty()) {
    p->SetExtraData("AudioSpecificConfig", config);
  }
  if (rate > 0) {
    QZMediaPacket::AudioInfo info(rate, channels);
    p->SetAudioInfo(&info);
  }
  return p;
}

const std::string kChanged =
    "VartoLogIOS [I] RtspSinker auido config changed, need to re-send it\n";

TEST_F(AudioTest, AacConfigIsPushedBeforeTheFrameThatCarriesIt) {
  MakeSinker(true, false);
  OpenSession(Aac(0, kAacConfig44k2), nullptr, /*origin=*/1000);
  log_.Clear();
  peer_->SendAudioPacket(Aac(1000, kAacConfig44k2));  // same as InitRtsp pushed
  EXPECT_FALSE(log_.Contains(kChanged));
  peer_->SendAudioPacket(Aac(1023, kAacConfig48k1));      // changed
  peer_->SendAudioPacket(Aac(1046, kAacConfig48k1));      // same again
  peer_->SendAudioPacket(Aac(1069, {}));                  // none: keeps the stored one
  peer_->SendAudioPacket(Aac(1092, {0x11, 0x88, 0x00}));  // longer only
  EXPECT_EQ(log_.Matching(kChanged).size(), 2u);
  const auto audio = low_->audio();
  ASSERT_EQ(audio.size(), 5u);
  EXPECT_EQ(audio[0].config, kAacConfig44k2);
  EXPECT_EQ(audio[1].config, kAacConfig48k1);  // the pipe had it when the frame arrived
  EXPECT_EQ(audio[1].sample_rate, 48000);
  EXPECT_EQ(audio[1].channels, 1);
  EXPECT_EQ(audio[3].config, kAacConfig48k1);
  EXPECT_EQ(audio[4].config, std::vector<unsigned char>({0x11, 0x88, 0x00}));
  EXPECT_EQ(audio[0].record->time_stamp_, 0u);
  EXPECT_EQ(audio[1].record->time_stamp_, 23u);
}

TEST_F(AudioTest, AacRecordFields) {
  MakeSinker(true, false);
  OpenSession(Aac(0, kAacConfig44k2), nullptr, /*origin=*/100);
  peer_->SendAudioPacket(Aac(600, {}, 16000, 1));  // info wins over the defaults
  peer_->SendAudioPacket(Aac(620, {}));
  const auto audio = low_->audio();
  ASSERT_EQ(audio.size(), 2u);
  const auto& with_info = *audio[0].record;
  EXPECT_EQ(with_info.codec_id_, QZ_MEDIA_CODEC_ID_AAC);
  EXPECT_EQ(with_info.sample_rate_, 16000);
  EXPECT_EQ(with_info.channels_, 1);
  EXPECT_EQ(with_info.time_stamp_, 500u);
  EXPECT_FALSE(with_info.extra_data_);
  ASSERT_TRUE(with_info.data_);
  EXPECT_EQ(std::vector<QZ_BYTE>(with_info.data_->data_.get(),
                                 with_info.data_->data_.get() + with_info.data_->size_),
            std::vector<QZ_BYTE>({0x21, 0x10, 0x05, 0x00}));
  EXPECT_EQ(audio[1].record->sample_rate_, 44100);  // parsed from the configuration
  EXPECT_EQ(audio[1].record->channels_, 2);
  // One record object, one buffer, for both pipes.
  EXPECT_EQ(high_->audio()[0].record.get(), audio[0].record.get());
}

TEST_F(AudioTest, WithoutPipesAacStillTracksConfiguration) {
  high_->set_accept(false);
  low_->set_accept(false);
  MakeSinker(true, false);
  OpenSession(Aac(0, {}), nullptr);
  EXPECT_FALSE(peer_->is_setting_audio_spec_config());
  peer_->SendAudioPacket(Aac(0, kAacConfig48k1));
  EXPECT_TRUE(peer_->is_setting_audio_spec_config());
  EXPECT_EQ(peer_->audio_specific_config(), kAacConfig48k1);
  EXPECT_EQ(peer_->sample_rate(), 48000);
}

struct G711Case {
  const char* name;
  QZ_MEDIA_CODEC_ID codec;
  int info_rate, info_channels;
  int rate, channels;  // expected in the record; 0: no record
};

const G711Case kG711Cases[] = {
    {"pcma_default", QZ_MEDIA_CODEC_ID_PCMA, 0, 0, 8000, 1},
    {"pcmu_default", QZ_MEDIA_CODEC_ID_PCMU, 0, 0, 8000, 1},
    {"pcma_with_info", QZ_MEDIA_CODEC_ID_PCMA, 16000, 2, 16000, 2},
    {"pcmu_zero_rate_ignored", QZ_MEDIA_CODEC_ID_PCMU, 0, 1, 8000, 1},
    {"speex_wb_default", QZ_MEDIA_CODEC_ID_SPEEX_WB, 0, 0, 16000, 1},
    {"speex_nb_ignored", QZ_MEDIA_CODEC_ID_SPEEX_NB, 0, 0, 0, 0},
    {"speex_ignored", QZ_MEDIA_CODEC_ID_SPEEX, 0, 0, 0, 0},
    {"speex_uwb_ignored", QZ_MEDIA_CODEC_ID_SPEEX_UWB, 0, 0, 0, 0},
};

class OtherAudioTest : public SinkerTest, public ::testing::WithParamInterface<G711Case> {};

TEST_P(OtherAudioTest, FramesBecomeRecords) {
  const G711Case& c = GetParam();
  MakeSinker(true, false);
  OpenSession(MakeAudio(0, c.codec), nullptr, /*origin=*/10);
  log_.Clear();
  auto p = MakeAudio(30, c.codec);
  if (c.info_rate > 0 || c.info_channels > 0) {
    QZMediaPacket::AudioInfo info(c.info_rate, c.info_channels);
    p->SetAudioInfo(&info);
  }
  peer_->SendAudioPacket(p);
  EXPECT_TRUE(log_.lines().empty());
  const auto audio = low_->audio();
  if (c.rate == 0) {
    EXPECT_TRUE(audio.empty());
    EXPECT_TRUE(peer_->is_first_audio());
    return;
  }
  ASSERT_EQ(audio.size(), 1u);
  EXPECT_EQ(audio[0].record->codec_id_, c.codec);
  EXPECT_EQ(audio[0].record->sample_rate_, c.rate);
  EXPECT_EQ(audio[0].record->channels_, c.channels);
  EXPECT_EQ(audio[0].record->time_stamp_, 20u);
  EXPECT_EQ(audio[0].record->data_->size_, 4u);
  EXPECT_FALSE(peer_->is_first_audio());
  EXPECT_EQ(peer_->first_audio_time(), 30u);
  peer_->SendAudioPacket(MakeAudio(50, c.codec));
  EXPECT_EQ(peer_->first_audio_time(), 30u);  // only the first frame is noted
}

INSTANTIATE_TEST_SUITE_P(Table,
                         OtherAudioTest,
                         ::testing::ValuesIn(kG711Cases),
                         [](const ::testing::TestParamInfo<G711Case>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
}  // namespace qz_test
