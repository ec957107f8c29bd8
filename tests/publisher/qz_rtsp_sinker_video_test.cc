// NAL scanning and the H.264 and H.265 send paths.
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/publisher/sinker_fixture.h"
#include "topcommon/qz_h2645/qz_h2645_nal_unit_type.h"
#include "topcommon/qz_h264_sei.h"

namespace qz_test {
namespace {

using VideoTest = SinkerTest;

// ---- scanners --------------------------------------------------------------------

// The sinker's start code scanner agrees with the H.264/H.265 parser's, whose
// boundary cases its own tests pin down, on every buffer of up to nine bytes
// drawn from 00, 01 and 02.
TEST_F(VideoTest, FindNalStartCodeAgreesWithTheParserOnEveryShortBuffer) {
  MakeSinker(true, true);
  qz_test::ForEachShortBuffer(9, [this](const Bytes& buffer) {
    Bytes b = buffer;  // the sinker's scanner takes a mutable buffer
    int len = -1, ref_len = -1;
    const QZ_BYTE* ref = qz_h2645::FindStartCode(b.data(), b.data() + b.size(), ref_len);
    const QZ_UINT8* found = peer_->FindNalStartCode(b.data(), static_cast<int>(b.size()), len);
    ASSERT_EQ(found, ref) << ::testing::PrintToString(b);
    ASSERT_EQ(len, ref_len) << ::testing::PrintToString(b);
  });
  Bytes bytes = {0, 0, 1, 0x65};
  for (QZ_UINT8* buffer : {static_cast<QZ_UINT8*>(nullptr), bytes.data()}) {
    int len = 7;  // a null buffer, or a negative size
    EXPECT_EQ(peer_->FindNalStartCode(buffer, buffer ? -3 : 4, len), nullptr);
    EXPECT_EQ(len, 0);
  }
}

struct NalTypeCase {
  const char* name;
  Bytes bytes;
  int type;
  int offset;  // of the start code; -1: not found
  int start_code_len, nal_len;
};

const Bytes kSetsAndIdr = {0,    0,    0, 1, 0x67, 0xAA, 0,    0,    1,
                           0x68, 0xBB, 0, 0, 0,    1,    0x65, 0xCC, 0xDD};

const NalTypeCase kNalTypeCases[] = {
    {"first_unit", kSetsAndIdr, 7, 0, 4, 6},
    {"middle_unit_short_start_code", kSetsAndIdr, 8, 6, 3, 5},
    {"last_unit_runs_to_the_end", kSetsAndIdr, 5, 11, 4, 7},
    {"absent_type", kSetsAndIdr, 1, -1, 0, 0},
    {"nal_ref_idc_ignored", {0, 0, 1, 0x25, 0x11}, 5, 0, 3, 5},
    {"start_code_without_header", {0, 0, 1, 0x41, 0x11, 0, 0, 1}, 5, -1, 0, 0},
    {"bytes_before_first_start_code", {0x65, 0x11, 0, 0, 1, 0x41}, 5, -1, 0, 0},
};

using NalTypeTest = SinkerTableTest<NalTypeCase>;

TEST_P(NalTypeTest, FindNalType) {
  const NalTypeCase& c = GetParam();
  MakeSinker(true, true);
  Bytes au = c.bytes;
  const int size = static_cast<int>(au.size());
  int scl = -1, nal_len = -1;
  QZ_UINT8* p = peer_->FindNalType(au.data(), size, c.type, scl, &nal_len);
  EXPECT_EQ(p ? p - au.data() : -1, c.offset);
  EXPECT_EQ(scl, c.start_code_len);
  EXPECT_EQ(nal_len, c.nal_len);
  int scl2 = -1;  // without asking for the length
  EXPECT_EQ(peer_->FindNalType(au.data(), size, c.type, scl2, nullptr), p);
  EXPECT_EQ(scl2, c.start_code_len);
}

INSTANTIATE_TEST_SUITE_P(Table, NalTypeTest, ::testing::ValuesIn(kNalTypeCases), RowName());

// ---- records ------------------------------------------------------------------------

constexpr QZ_MEDIA_CODEC_ID kH264 = QZ_MEDIA_CODEC_ID_H264;
constexpr QZ_MEDIA_CODEC_ID kH265 = QZ_MEDIA_CODEC_ID_H265;
const Bytes kOtherSps = {0x67, 0x64, 0x00, 0x28};
const Bytes kOtherPps = {0x68, 0xEE, 0x3C};
const Bytes kOtherH265Sps = {0x42, 0x01, 0x01, 0x02, 0x60};

// NAL units by name, for the tables below. SPS, PPS and VPS are the sets the
// session stores, SPS2 and PPS2 others; P is a non-IDR slice (TRAIL_R in H.265).
std::vector<Bytes> Units(QZ_MEDIA_CODEC_ID codec, const std::string& names) {
  static const std::map<std::string, Bytes> h264 = {
      {"AUD", {0x09, 0x30}}, {"SPS", kH264Sps},           {"PPS", kH264Pps}, {"SPS2", kOtherSps},
      {"PPS2", kOtherPps},   {"SEI", {0x06, 0x05, 0x80}}, {"IDR", kH264Idr}, {"P", kH264Slice},
      {"P2", {0x41, 0x77}},  {"P00", {0x41, 0x22, 0, 0}}};
  static const std::map<std::string, Bytes> h265 = {{"VPS", kH265Vps},
                                                    {"SPS", kH265Sps},
                                                    {"PPS", kH265Pps},
                                                    {"SPS2", kOtherH265Sps},
                                                    {"SEI", {0x4E, 0x01, 0x05, 0x80}},
                                                    {"IDR", kH265Idr},
                                                    {"P", kH265Trail}};
  std::vector<Bytes> out;
  std::istringstream in(names);
  for (std::string name; in >> name;) {
    out.push_back((codec == kH265 ? h265 : h264).at(name));
  }
  return out;
}

// An access unit of the named NAL units.
QZ_MediaPacketRefPtr Au(QZ_MEDIA_CODEC_ID codec, const char* names, bool key, long long ts) {
  return MakePacket(QZMediaPacket::MediaTypeVideo, codec, AnnexB(Units(codec, names)), key, ts);
}

struct RecordCase {
  const char* name;
  QZ_MEDIA_CODEC_ID codec;
  const char* au;
  bool key;
  bool stored_sets;  // the session already holds SPS and PPS (and VPS)
  const char* units;
  size_t errors;  // log lines
};

// H.264 records are an AUD, then for a key frame SPS and PPS (in-band first,
// else stored), then the slices of the frame's kind; the encoder's own AUD and
// SEI are left out. H.265 records carry the access unit as it is, with the
// stored sets a key frame lacks in front; the sets in a non-key access unit
// are sent but not taken up (no change is logged).
const RecordCase kRecordCases[] = {
    {"h264_key_with_in_band_sets", kH264, "SPS2 PPS2 IDR", true, true, "AUD SPS2 PPS2 IDR", 0},
    {"h264_key_uses_stored_sets", kH264, "IDR", true, true, "AUD SPS PPS IDR", 0},
    {"h264_key_without_any_sets", kH264, "IDR", true, false, "AUD IDR", 2},
    {"h264_encoder_aud_and_sei_left_out", kH264, "AUD SPS PPS SEI IDR IDR", true, true,
     "AUD SPS PPS IDR IDR", 0},
    {"h264_key_flag_with_only_p_slices", kH264, "P", true, true, "AUD SPS PPS", 1},
    {"h264_non_key_slices", kH264, "P P2", false, true, "AUD P P2", 0},
    {"h264_non_key_drops_sets_and_idr", kH264, "SPS2 IDR P", false, true, "AUD P", 0},
    {"h264_non_key_with_only_sei", kH264, "SEI", false, true, "AUD", 1},
    {"h264_trailing_zeros_stay_with_the_unit", kH264, "P00", false, true, "AUD P00", 0},
    {"h265_in_band_sets", kH265, "VPS SPS PPS SEI IDR", true, true, "VPS SPS PPS SEI IDR", 0},
    {"h265_key_uses_stored_sets", kH265, "IDR", true, true, "VPS SPS PPS IDR", 0},
    {"h265_only_the_missing_vps_added", kH265, "SPS PPS IDR", true, true, "VPS SPS PPS IDR", 0},
    {"h265_non_key_as_it_is", kH265, "VPS SPS2 PPS P", false, true, "VPS SPS2 PPS P", 0},
    {"h265_key_without_any_sets", kH265, "IDR", true, false, "IDR", 3},
};

using RecordTest = SinkerTableTest<RecordCase>;

TEST_P(RecordTest, BuildsRecord) {
  const RecordCase& c = GetParam();
  MakeSinker(false, true);
  auto init = MakeVideo(0, true, c.codec);
  if (c.stored_sets) {
    WithSets(init, c.codec == kH265 ? kH265Vps : Bytes(), Units(c.codec, "SPS")[0],
             Units(c.codec, "PPS")[0]);
  }
  OpenSession(nullptr, init);
  peer_->SendVideoPacket(Au(c.codec, "IDR", true, 0));  // passes the first-key-frame gate
  log_.Clear();
  peer_->SendVideoPacket(Au(c.codec, c.au, c.key, 40));
  ASSERT_EQ(low_->video().size(), 2u);
  const auto& record = *low_->video()[1].record;
  EXPECT_EQ(NalUnits(record), Units(c.codec, c.units));
  EXPECT_EQ(record.is_key_frame_, c.key);
  EXPECT_EQ(record.codec_id_, c.codec);
  EXPECT_EQ(record.time_stamp_, 40u);
  EXPECT_EQ(log_.lines().size(), c.errors) << ::testing::PrintToString(log_.lines());
  // Every pipe got the very same record.
  EXPECT_EQ(high_->video()[1].record.get(), low_->video()[1].record.get());
}

INSTANTIATE_TEST_SUITE_P(Table, RecordTest, ::testing::ValuesIn(kRecordCases), RowName());

// ---- parameter sets ---------------------------------------------------------------

// Video waits for the first key frame. Sets from a key frame's extra data are
// pushed into the pipes the first time both are there, and again with a log
// line when either changes, always before the record of the frame that
// brought them.
TEST_F(VideoTest, H264ParameterSetTracking) {
  MakeSinker(false, true);
  OpenSession(nullptr, MakeVideo(0, true));  // no extra data: nothing pushed yet
  peer_->SendVideoPacket(MakeVideo(0, false));
  EXPECT_TRUE(low_->video().empty());
  const std::string changed = "VartoLogIOS [I] RtspSinker sps or pps changed, need to re-send it\n";
  peer_->SendVideoPacket(WithSets(MakeVideo(0, true), {}, kH264Sps, {}));  // one set: nothing
  EXPECT_FALSE(peer_->is_setting_video_vps_sps_pps());
  peer_->SendVideoPacket(WithSets(MakeVideo(40, true), {}, kH264Sps, kH264Pps));
  EXPECT_EQ(low_->video()[1].sps, kH264Sps);
  peer_->SendVideoPacket(WithSets(MakeVideo(80, true), {}, kH264Sps, kH264Pps));  // same
  EXPECT_TRUE(log_.Matching(changed).empty());
  peer_->SendVideoPacket(WithSets(MakeVideo(120, true), {}, kH264Sps, kOtherPps));
  EXPECT_EQ(log_.Matching(changed).size(), 1u);
  EXPECT_EQ(low_->video()[3].pps, kOtherPps);
  EXPECT_EQ(low_->video()[3].sps, kH264Sps);
  // Extra data of a non-key frame is ignored.
  peer_->SendVideoPacket(WithSets(MakeVideo(160, false), {}, kOtherSps, kH264Pps));
  EXPECT_EQ(low_->video()[4].sps, kH264Sps);
  EXPECT_EQ(low_->video()[4].pps, kOtherPps);
}

// H.265 video also waits for NAL units that say key frame, and an access
// unit that does not parse never opens the gate. In-band sets take precedence
// over extra data; all three kinds are needed.
TEST_F(VideoTest, H265ParameterSetTracking) {
  MakeSinker(false, true);
  OpenSession(nullptr, MakeVideo(0, true, kH265));  // nothing stored
  peer_->SendVideoPacket(Au(kH265, "P", false, 0));
  peer_->SendVideoPacket(Au(kH265, "P", true, 0));  // flagged key, but a TRAIL_R slice
  peer_->SendVideoPacket(
      MakePacket(QZMediaPacket::MediaTypeVideo, kH265, {0x26, 0x01, 0x02}, true, 0));
  EXPECT_TRUE(low_->video().empty());
  const std::string changed =
      "VartoLogIOS [I] RtspSinker h265 vps, sps or pps changed, need to re-send it\n";
  // Extra data completes the sets: pushed before the record, inserted into it.
  peer_->SendVideoPacket(WithSets(Au(kH265, "IDR", true, 0), kH265Vps, kH265Sps, kH265Pps));
  EXPECT_EQ(low_->video()[0].vps, kH265Vps);
  EXPECT_EQ(NalUnits(*low_->video()[0].record),
            std::vector<Bytes>({kH265Vps, kH265Sps, kH265Pps, kH265Idr}));
  // Two of three kinds: nothing pushed.
  peer_->SendVideoPacket(WithSets(Au(kH265, "SPS2 IDR", true, 40), {}, {}, kH265Pps));
  EXPECT_EQ(low_->video()[1].sps, kH265Sps);
  // An in-band SPS one byte off: all three pushed again, with a log line.
  peer_->SendVideoPacket(Au(kH265, "VPS SPS2 PPS IDR", true, 80));
  EXPECT_EQ(low_->video()[2].sps, kOtherH265Sps);
  peer_->SendVideoPacket(Au(kH265, "VPS SPS2 PPS IDR", true, 120));
  EXPECT_EQ(log_.Matching(changed).size(), 1u);
}

// ---- user data ---------------------------------------------------------------------

TEST_F(VideoTest, UserDataTravelsOneItemPerRecordAsSei) {
  RtspSinker& sinker = MakeSinker(false, true);
  OpenSession(nullptr, MakeVideo(0, true));
  auto binary = std::make_shared<qz_common::PublisherUserData>();
  const QZ_BYTE bin[] = {0, 0, 1};
  binary->SetData(bin, 3);
  auto text = TextItem(std::string("ab\0cd", 5));  // only the text before the zero
  sinker.PostUserData(text);
  sinker.PostUserData(binary);
  peer_->SendVideoPacket(MakeVideo(0, true));
  peer_->SendVideoPacket(MakeVideo(40, false));
  peer_->SendVideoPacket(MakeVideo(80, false));
  ASSERT_EQ(low_->video().size(), 3u);

  // A user data SEI: payload type 5, its size, the UUID of its kind, the data.
  const auto sei = [](const QZ_BYTE* uuid, int size, const Bytes& data) {
    Bytes unit = {0x06, 0x05, static_cast<QZ_BYTE>(16 + size)};
    unit.insert(unit.end(), uuid, uuid + 16);
    unit.insert(unit.end(), data.begin(), data.end());
    return unit;
  };
  const auto key_units = NalUnits(*low_->video()[0].record);
  ASSERT_EQ(key_units.size(), 5u);  // AUD, SPS, PPS, SEI, IDR
  EXPECT_EQ(key_units[3], sei(qz_top_common::H264Sei::kTextUuid, 2, {'a', 'b', 0x80}));
  const auto p_units = NalUnits(*low_->video()[1].record);
  ASSERT_EQ(p_units.size(), 3u);  // AUD, SEI, slice; emulation prevention applied to the data
  EXPECT_EQ(p_units[1], sei(qz_top_common::H264Sei::kBinaryUuid, 3, {0, 0, 3, 1, 0x80}));
  EXPECT_EQ(NalUnits(*low_->video()[2].record).size(), 2u);  // queue empty: no SEI
}

// Without pipes no record is built, but the parameter sets and the AAC
// configuration are still tracked. A null user data item is not queued, and
// the queued item stays until the queue is cleared.
TEST_F(VideoTest, WithoutPipesNothingIsBuiltButSetsAreTrackedAndUserDataStays) {
  high_->set_accept(false);
  low_->set_accept(false);
  RtspSinker& sinker = MakeSinker(true, true);
  OpenSession(Audio(0, {}), MakeVideo(0, true));
  EXPECT_FALSE(peer_->is_setting_audio_spec_config());
  peer_->SendAudioPacket(Audio(0, kAacConfig48k1));
  EXPECT_TRUE(peer_->is_setting_audio_spec_config());
  EXPECT_EQ(peer_->audio_specific_config(), kAacConfig48k1);
  EXPECT_EQ(peer_->sample_rate(), 48000);
  std::shared_ptr<qz_common::PublisherUserData> none, item = TextItem("x");
  sinker.PostUserData(none);
  sinker.PostUserData(item);
  peer_->SendVideoPacket(WithSets(MakeVideo(0, true), {}, kH264Sps, kH264Pps));
  EXPECT_EQ(peer_->UserDataQueued(), 1u);
  EXPECT_FALSE(peer_->is_first_video());
  EXPECT_EQ(peer_->sps(), kH264Sps);
  // H.265 and MJPEG never take user data.
  peer_->SendVideoPacket(MakeVideo(40, true, kH265));
  peer_->SendVideoPacket(MakeVideo(80, true, QZ_MEDIA_CODEC_ID_MJPEG));
  EXPECT_EQ(peer_->UserDataQueued(), 1u);
  sinker.ClearPostUserDataQueue();
  EXPECT_EQ(peer_->UserDataQueued(), 0u);
}

// Garbage never crashes or reads outside the packet (ASan watches).
TEST_F(VideoTest, GarbageAccessUnitsAreSurvived) {
  MakeSinker(false, true);
  OpenSession(nullptr, MakeVideo(0, true));
  std::mt19937 rng(99);
  std::vector<Bytes> inputs = {{}, {0, 0, 1}, {0, 0, 0, 1}, {0x65}, {0x11, 0, 0, 1}, {0, 0, 1, 0}};
  for (int i = 0; i < 400; ++i) {
    Bytes b(rng() % 64);
    for (auto& x : b) {
      x = rng() % 3 == 0 ? 0 : static_cast<QZ_BYTE>(rng());
    }
    inputs.push_back(b);
  }
  long long ts = 0;
  for (const Bytes& input : inputs) {
    for (QZ_MEDIA_CODEC_ID codec : {kH264, kH265}) {
      for (bool key : {true, false}) {
        peer_->SendVideoPacket(
            MakePacket(QZMediaPacket::MediaTypeVideo, codec, input, key, ts += 40));
      }
    }
  }
  for (const auto& v : low_->video()) {
    for (const auto& unit : v.record->nal_units_) {
      EXPECT_GT(unit->size_, 0u);
    }
  }
}

}  // namespace
}  // namespace qz_test
