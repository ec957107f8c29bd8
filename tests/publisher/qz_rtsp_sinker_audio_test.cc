// The AAC, G.711 and Speex send paths.
#include <string>
#include <vector>

#include "tests/publisher/sinker_fixture.h"

namespace qz_test {
namespace {

using AudioTest = SinkerTest;

// An AAC frame with `config` as its AudioSpecificConfig (none when empty) and
// an audio info when `rate` is positive.
QZ_MediaPacketRefPtr Aac(long long ts, const Bytes& config, int rate = 0, int channels = 0) {
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
  peer_->SendAudioPacket(Aac(1115, {0xFF}));              // unparsable
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
  auto p = MakeAudio(30, c.codec);
  if (c.info_rate > 0 || c.info_channels > 0) {
    QZMediaPacket::AudioInfo info(c.info_rate, c.info_channels);
    p->SetAudioInfo(&info);
  }
  peer_->SendAudioPacket(p);
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
