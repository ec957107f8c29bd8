// NAL scanning, NAL buffers and the H.264 and H.265 send paths.
#include <random>
#include <string>
#include <vector>

#include "tests/publisher/sinker_fixture.h"
#include "topcommon/qz_h264_sei.h"

namespace qz_test {
namespace {

using Bytes = std::vector<QZ_BYTE>;
using VideoTest = SinkerTest;

// ---- scanners --------------------------------------------------------------------

struct ScanCase {
  const char* name;
  Bytes bytes;
  int offset;  // -1: none
  int len;
};

const ScanCase kScanCases[] = {
    {"three_byte", {0, 0, 1, 0x65, 0x11}, 0, 3},
    {"four_byte", {0, 0, 0, 1, 0x67, 0x11}, 0, 4},
    {"zero_before_four_byte", {0, 0, 0, 0, 1, 0x67}, 1, 4},
    {"after_a_byte", {0x12, 0, 0, 1, 0x41}, 1, 3},
    {"after_00_00_02", {0, 0, 2, 0, 0, 1, 0x09}, 3, 3},
    {"after_00_01", {0, 1, 0, 0, 1}, 2, 3},
    {"zeros_at_end", {0, 0, 0}, -1, 0},
    {"one_byte", {0}, -1, 0},
    {"two_bytes", {0, 0}, -1, 0},
    {"last_three_bytes", {0x11, 0x22, 0x33, 0, 0, 1}, 3, 3},
    {"long_zero_run", {0, 0, 0, 0, 0, 0, 1, 0x65}, 3, 4},
};

class ScanTest : public SinkerTest, public ::testing::WithParamInterface<ScanCase> {};

TEST_P(ScanTest, FindNalStartCode) {
  MakeSinker(true, true);
  Bytes bytes = GetParam().bytes;
  int len = -1;
  QZ_UINT8* found = peer_->FindNalStartCode(bytes.data(), static_cast<int>(bytes.size()), len);
  if (GetParam().offset < 0) {
    EXPECT_EQ(found, nullptr);
  } else {
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found - bytes.data(), GetParam().offset);
  }
  EXPECT_EQ(len, GetParam().len);
}

INSTANTIATE_TEST_SUITE_P(Table,
                         ScanTest,
                         ::testing::ValuesIn(kScanCases),
                         [](const ::testing::TestParamInfo<ScanCase>& info) {
                           return std::string(info.param.name);
                         });

TEST_F(VideoTest, FindNalStartCodeRejectsBadArguments) {
  MakeSinker(true, true);
  Bytes bytes = {0, 0, 1, 0x65};
  int len = 7;
  EXPECT_EQ(peer_->FindNalStartCode(nullptr, 4, len), nullptr);
  EXPECT_EQ(len, 0);
  len = 7;
  EXPECT_EQ(peer_->FindNalStartCode(bytes.data(), 0, len), nullptr);
  EXPECT_EQ(len, 0);
  EXPECT_EQ(peer_->FindNalStartCode(bytes.data(), -3, len), nullptr);
}

TEST_F(VideoTest, FindNalTypeOnTheWorkedExample) {
  MakeSinker(true, true);
  Bytes au = {0, 0, 0, 1, 0x67, 0xAA, 0, 0, 1, 0x68, 0xBB, 0, 0, 0, 1, 0x65, 0xCC, 0xDD};
  struct {
    int type, offset, start_code_len, nal_len;
  } cases[] = {{7, 0, 4, 6}, {8, 6, 3, 5}, {5, 11, 4, 7}, {1, -1, 0, 0}};
  for (const auto& c : cases) {
    int scl = -1, nal_len = -1;
    QZ_UINT8* p = peer_->FindNalType(au.data(), static_cast<int>(au.size()), c.type, scl, &nal_len);
    if (c.offset < 0) {
      EXPECT_EQ(p, nullptr);
    } else {
      ASSERT_NE(p, nullptr) << "type " << c.type;
      EXPECT_EQ(p - au.data(), c.offset);
    }
    EXPECT_EQ(scl, c.start_code_len) << "type " << c.type;
    EXPECT_EQ(nal_len, c.nal_len) << "type " << c.type;
    int scl2 = -1;
    EXPECT_EQ(peer_->FindNalType(au.data(), static_cast<int>(au.size()), c.type, scl2, nullptr), p);
    EXPECT_EQ(scl2, c.start_code_len);
  }
}

TEST_F(VideoTest, FindNalTypeComparesTheLowFiveBitsOnly) {
  MakeSinker(true, true);
  const std::pair<QZ_BYTE, int> cases[] = {{0x65, 5}, {0x25, 5}, {0x05, 5}, {0x41, 1},
                                           {0x01, 1}, {0x67, 7}, {0x68, 8}, {0x06, 6}};
  for (const auto& c : cases) {
    Bytes au = {0, 0, 1, c.first, 0x11};
    int scl = 0;
    EXPECT_NE(peer_->FindNalType(au.data(), 5, c.second, scl, nullptr), nullptr)
        << std::hex << int(c.first);
  }
  Bytes aud = {0, 0, 1, 0x09, 0x10};
  int scl = 0;
  for (int type : {1, 5, 6, 7, 8}) {
    EXPECT_EQ(peer_->FindNalType(aud.data(), 5, type, scl, nullptr), nullptr);
  }
}

TEST_F(VideoTest, FindNalTypeStopsAtAStartCodeWithoutHeader) {
  MakeSinker(true, true);
  Bytes au = {0, 0, 1, 0x41, 0x11, 0, 0, 1};
  int scl = 9, nal_len = 9;
  EXPECT_EQ(peer_->FindNalType(au.data(), 8, 5, scl, &nal_len), nullptr);
  EXPECT_EQ(scl, 0);
  EXPECT_EQ(nal_len, 0);
  // Bytes in front of the first start code are never taken for a unit.
  Bytes lead = {0x65, 0x11, 0, 0, 1, 0x41};
  EXPECT_EQ(peer_->FindNalType(lead.data(), 6, 5, scl, nullptr), nullptr);
}

TEST_F(VideoTest, BufferBuilders) {
  MakeSinker(true, true);
  auto aud = peer_->MakeAUD();
  ASSERT_TRUE(aud);
  EXPECT_EQ(aud->size_, 2u);
  EXPECT_EQ(aud->data_[0], 0x09);
  EXPECT_EQ(aud->data_[1], 0x30);
  Bytes source = {0x42};
  auto copy = peer_->MakeRtspPacketData(source.data(), 1);
  source[0] = 0;
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->size_, 1u);
  EXPECT_EQ(copy->data_[0], 0x42);
  EXPECT_FALSE(peer_->MakeRtspPacketData(nullptr, 4));
  EXPECT_FALSE(peer_->MakeRtspPacketData(source.data(), 0));
  EXPECT_FALSE(peer_->MakeRtspPacketData(source.data(), -1));
}

// ---- H.264 --------------------------------------------------------------------------

const Bytes kAud = {0x09, 0x30};

struct H264Case {
  const char* name;
  Bytes au;
  bool key;
  bool stored_sets;  // the session already holds kH264Sps/kH264Pps
  std::vector<Bytes> units;
  std::vector<std::string> log;
};

const Bytes kOtherSps = {0x67, 0x64, 0x00, 0x28};
const Bytes kOtherPps = {0x68, 0xEE, 0x3C};

const H264Case kH264Cases[] = {
    {"key_with_in_band_sets",
     AnnexB({kOtherSps, kOtherPps, kH264Idr}),
     true,
     true,
     {kAud, kOtherSps, kOtherPps, kH264Idr},
     {}},
    {"key_without_in_band_sets_uses_stored",
     AnnexB({kH264Idr}),
     true,
     true,
     {kAud, kH264Sps, kH264Pps, kH264Idr},
     {}},
    {"key_without_any_sets",
     AnnexB({kH264Idr}),
     true,
     false,
     {kAud, kH264Idr},
     {"VartoLogIOS [E] RtspSinker::MakeRtspPacket does not sps data\n",
      "VartoLogIOS [E] RtspSinker::MakeRtspPacket does not pps data\n"}},
    // 00 00 00 01 09 10 | 67 .. | 68 .. | 00 00 01 06 .. | 00 00 01 65 .. | 00 00 01 65 ..
    {"encoder_aud_and_sei_left_out",
     Bytes({0, 0, 0, 1,    0x09, 0x10, 0,    0, 0, 1, 0x67, 0x42, 0, 0, 0, 1,    0x68, 0xCE,
            0, 0, 1, 0x06, 0x05, 0x01, 0x80, 0, 0, 1, 0x65, 0x88, 0, 0, 1, 0x65, 0x99}),
     true,
     true,
     {kAud, {0x67, 0x42}, {0x68, 0xCE}, {0x65, 0x88}, {0x65, 0x99}},
     {}},
    {"key_flag_with_only_p_slices",
     AnnexB({kH264Slice}),
     true,
     true,
     {kAud, kH264Sps, kH264Pps},
     {"VartoLogIOS [E] RtspSinker::MakeRtspPacket find not idr type\n"}},
    {"non_key_slices",
     AnnexB({kH264Slice, {0x41, 0x77}}),
     false,
     true,
     {kAud, kH264Slice, {0x41, 0x77}},
     {}},
    {"non_key_drops_sets_and_idr",
     AnnexB({kOtherSps, kH264Idr, kH264Slice}),
     false,
     true,
     {kAud, kH264Slice},
     {}},
    {"non_key_with_only_sei",
     AnnexB({{0x06, 0x05, 0x80}}),
     false,
     true,
     {kAud},
     {"VartoLogIOS [E] RtspSinker::MakeRtspPacket find not slice type\n"}},
    {"trailing_zeros_stay_with_the_unit",
     Bytes({0, 0, 1, 0x41, 0x22, 0, 0}),
     false,
     true,
     {kAud, {0x41, 0x22, 0, 0}},
     {}},
};

class H264RecordTest : public SinkerTest, public ::testing::WithParamInterface<H264Case> {};

TEST_P(H264RecordTest, BuildsRecord) {
  const H264Case& c = GetParam();
  MakeSinker(false, true);
  auto init = MakeVideo(0, true);
  if (c.stored_sets) {
    init->SetExtraData("sps", kH264Sps);
    init->SetExtraData("pps", kH264Pps);
  }
  OpenSession(nullptr, init);
  peer_->SendVideoPacket(MakeVideo(0, true));  // passes the first-key-frame gate
  log_.Clear();
  peer_->SendVideoPacket(
      MakePacket(QZMediaPacket::MediaTypeVideo, QZ_MEDIA_CODEC_ID_H264, c.au, c.key, 40));
  ASSERT_EQ(low_->video().size(), 2u);
  const auto& record = *low_->video()[1].record;
  EXPECT_EQ(NalUnits(record), c.units);
  EXPECT_EQ(record.is_key_frame_, c.key);
  EXPECT_EQ(record.codec_id_, QZ_MEDIA_CODEC_ID_H264);
  EXPECT_EQ(record.time_stamp_, 40u);
  EXPECT_EQ(log_.lines(), c.log);
  // Every pipe got the very same record.
  EXPECT_EQ(high_->video()[1].record.get(), low_->video()[1].record.get());
}

INSTANTIATE_TEST_SUITE_P(Table,
                         H264RecordTest,
                         ::testing::ValuesIn(kH264Cases),
                         [](const ::testing::TestParamInfo<H264Case>& info) {
                           return std::string(info.param.name);
                         });

TEST_F(VideoTest, H264WaitsForTheFirstKeyFrame) {
  MakeSinker(false, true);
  OpenSession(nullptr, MakeVideo(0, false));
  peer_->SendVideoPacket(MakeVideo(0, false));
  peer_->SendVideoPacket(MakeVideo(40, false));
  EXPECT_TRUE(low_->video().empty());
  EXPECT_EQ(log_.Matching("VartoLogIOS [I] [RtspSinker] RtspSinker SendH264Packet "
                          "is_first_video_=true, but it is not key frame,, it will drop this "
                          "frame, timestamp:40\n")
                .size(),
            1u);
  EXPECT_TRUE(peer_->is_first_video());
  peer_->SendVideoPacket(MakeVideo(80, true));
  peer_->SendVideoPacket(MakeVideo(120, false));
  EXPECT_EQ(low_->video().size(), 2u);
  EXPECT_EQ(peer_->first_video_time(), 80u);
}

// Parameter sets from extra data: pushed without a log the first time,
// pushed with a log when either changes, and always before the record of the
// key frame that brought them.
TEST_F(VideoTest, H264ParameterSetTracking) {
  MakeSinker(false, true);
  OpenSession(nullptr, MakeVideo(0, true));  // no extra data: nothing pushed yet
  EXPECT_FALSE(peer_->is_setting_video_vps_sps_pps());
  auto key = [](long long ts, const Bytes& sps, const Bytes& pps) {
    auto p = MakeVideo(ts, true);
    if (!sps.empty())
      p->SetExtraData("sps", sps);
    if (!pps.empty())
      p->SetExtraData("pps", pps);
    return p;
  };
  const std::string changed = "VartoLogIOS [I] RtspSinker sps or pps changed, need to re-send it\n";
  peer_->SendVideoPacket(key(0, kH264Sps, {}));  // only one set: nothing pushed
  EXPECT_FALSE(peer_->is_setting_video_vps_sps_pps());
  peer_->SendVideoPacket(key(40, kH264Sps, kH264Pps));
  EXPECT_TRUE(peer_->is_setting_video_vps_sps_pps());
  EXPECT_FALSE(log_.Contains(changed));
  EXPECT_EQ(low_->video()[1].sps, kH264Sps);
  peer_->SendVideoPacket(key(80, kH264Sps, kH264Pps));  // same: nothing
  EXPECT_FALSE(log_.Contains(changed));
  peer_->SendVideoPacket(key(120, kH264Sps, kOtherPps));  // PPS changed
  EXPECT_EQ(log_.Matching(changed).size(), 1u);
  EXPECT_EQ(low_->video()[3].pps, kOtherPps);  // pushed before this record arrived
  EXPECT_EQ(low_->video()[3].sps, kH264Sps);
  auto non_key = MakeVideo(160, false);
  non_key->SetExtraData("sps", kOtherSps);
  non_key->SetExtraData("pps", kH264Pps);
  peer_->SendVideoPacket(non_key);  // non-key extra data is ignored
  EXPECT_EQ(peer_->sps(), kH264Sps);
  EXPECT_EQ(peer_->pps(), kOtherPps);
}

TEST_F(VideoTest, UserDataTravelsOneItemPerRecordAsSei) {
  RtspSinker& sinker = MakeSinker(false, true);
  OpenSession(nullptr, MakeVideo(0, true));
  auto text = std::make_shared<qz_common::PublisherUserData>();
  text->SetUTF8String(std::string("ab\0cd", 5));  // only the text before the zero
  auto binary = std::make_shared<qz_common::PublisherUserData>();
  const QZ_BYTE bin[] = {0, 0, 1};
  binary->SetData(bin, 3);
  sinker.PostUserData(text);
  sinker.PostUserData(binary);
  peer_->SendVideoPacket(MakeVideo(0, true));
  peer_->SendVideoPacket(MakeVideo(40, false));
  peer_->SendVideoPacket(MakeVideo(80, false));
  ASSERT_EQ(low_->video().size(), 3u);

  Bytes text_sei = {0x06, 0x05, 16 + 2};
  text_sei.insert(text_sei.end(), qz_top_common::H264Sei::kTextUuid,
                  qz_top_common::H264Sei::kTextUuid + 16);
  text_sei.insert(text_sei.end(), {'a', 'b', 0x80});
  const auto key_units = NalUnits(*low_->video()[0].record);
  ASSERT_EQ(key_units.size(), 5u);  // AUD, SPS, PPS, SEI, IDR
  EXPECT_EQ(key_units[3], text_sei);

  Bytes binary_sei = {0x06, 0x05, 16 + 3};
  binary_sei.insert(binary_sei.end(), qz_top_common::H264Sei::kBinaryUuid,
                    qz_top_common::H264Sei::kBinaryUuid + 16);
  binary_sei.insert(binary_sei.end(), {0, 0, 3, 1, 0x80});  // emulation prevention applied
  const auto p_units = NalUnits(*low_->video()[1].record);
  ASSERT_EQ(p_units.size(), 3u);  // AUD, SEI, slice
  EXPECT_EQ(p_units[1], binary_sei);

  EXPECT_EQ(NalUnits(*low_->video()[2].record).size(), 2u);  // queue empty: no SEI
}

TEST_F(VideoTest, WithoutPipesNothingIsBuiltAndUserDataStays) {
  RtspSinker& sinker = MakeSinker(false, true);
  high_->set_accept(false);
  low_->set_accept(false);
  OpenSession(nullptr, MakeVideo(0, true));
  auto item = std::make_shared<qz_common::PublisherUserData>();
  item->SetUTF8String("x");
  sinker.PostUserData(item);
  auto key = MakeVideo(0, true);
  key->SetExtraData("sps", kH264Sps);
  key->SetExtraData("pps", kH264Pps);
  peer_->SendVideoPacket(key);
  EXPECT_EQ(peer_->UserDataQueued(), 1u);
  EXPECT_FALSE(peer_->is_first_video());
  EXPECT_EQ(peer_->sps(), kH264Sps);
  // H.265 and MJPEG never take user data.
  peer_->SendVideoPacket(MakeVideo(40, true, QZ_MEDIA_CODEC_ID_H265));
  peer_->SendVideoPacket(MakeVideo(80, true, QZ_MEDIA_CODEC_ID_MJPEG));
  EXPECT_EQ(peer_->UserDataQueued(), 1u);
}

// ---- H.265 --------------------------------------------------------------------------

QZ_MediaPacketRefPtr H265(long long ts,
                          bool key,
                          const std::vector<Bytes>& units,
                          bool vps = false,
                          bool sps = false,
                          bool pps = false) {
  auto p =
      MakePacket(QZMediaPacket::MediaTypeVideo, QZ_MEDIA_CODEC_ID_H265, AnnexB(units), key, ts);
  if (vps)
    p->SetExtraData("vps", kH265Vps);
  if (sps)
    p->SetExtraData("sps", kH265Sps);
  if (pps)
    p->SetExtraData("pps", kH265Pps);
  return p;
}

const Bytes kOtherH265Sps = {0x42, 0x01, 0x01, 0x02, 0x60};
const Bytes kH265Sei = {0x4E, 0x01, 0x05, 0x80};

TEST_F(VideoTest, H265RecordsKeepTheAccessUnitAndAddMissingSets) {
  MakeSinker(false, true);
  OpenSession(nullptr, H265(0, true, {kH265Idr}, true, true, true));
  EXPECT_TRUE(peer_->is_setting_video_vps_sps_pps());
  struct {
    QZ_MediaPacketRefPtr packet;
    std::vector<Bytes> units;
  } cases[] = {
      // In-band sets: exactly the access unit.
      {H265(0, true, {kH265Vps, kH265Sps, kH265Pps, kH265Sei, kH265Idr}),
       {kH265Vps, kH265Sps, kH265Pps, kH265Sei, kH265Idr}},
      // Only slices: stored VPS, SPS, PPS in front.
      {H265(40, true, {kH265Idr}), {kH265Vps, kH265Sps, kH265Pps, kH265Idr}},
      // SPS and PPS in band but no VPS: only the VPS is added.
      {H265(80, true, {kH265Sps, kH265Pps, kH265Idr}), {kH265Vps, kH265Sps, kH265Pps, kH265Idr}},
      // A non-key frame is carried as it is, sets and all.
      {H265(120, false, {kH265Sps, kH265Trail}), {kH265Sps, kH265Trail}},
  };
  for (auto& c : cases) {
    peer_->SendVideoPacket(c.packet);
  }
  ASSERT_EQ(low_->video().size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(NalUnits(*low_->video()[i].record), cases[i].units) << "case " << i;
    EXPECT_EQ(low_->video()[i].record->codec_id_, QZ_MEDIA_CODEC_ID_H265);
  }
  EXPECT_FALSE(low_->video()[3].record->is_key_frame_);
}

TEST_F(VideoTest, H265GateNeedsBothKeyFlags) {
  MakeSinker(false, true);
  OpenSession(nullptr, H265(0, true, {kH265Idr}, true, true, true));
  peer_->SendVideoPacket(H265(0, false, {kH265Trail}));
  peer_->SendVideoPacket(H265(40, true, {kH265Trail}));  // flagged key, parser disagrees
  EXPECT_TRUE(low_->video().empty());
  EXPECT_TRUE(log_.Contains(
      "VartoLogIOS [I] [RtspSinker] RtspSinker SendH265Packet is_first_video_=true, but it is not "
      "key frame,, it will drop this frame, timestamp:0\n"));
  EXPECT_TRUE(log_.Contains(
      "VartoLogIOS [I] [RtspSinker] RtspSinker SendH265Packet is_first_video_=true, but nal is not "
      "key frame,, it will drop this frame, timestamp:40\n"));
  peer_->SendVideoPacket(H265(80, true, {kH265Idr}));
  ASSERT_EQ(low_->video().size(), 1u);
  EXPECT_EQ(low_->video()[0].record->time_stamp_, 80u);
  EXPECT_EQ(peer_->first_video_time(), 80u);
}

TEST_F(VideoTest, H265ParameterSetTracking) {
  MakeSinker(false, true);
  OpenSession(nullptr, H265(0, true, {kH265Idr}));  // nothing stored
  log_.Clear();
  peer_->SendVideoPacket(H265(0, true, {kH265Idr}));
  EXPECT_EQ(log_.lines(),
            std::vector<std::string>(
                {"VartoLogIOS [E] RtspSinker::MakeRtspH265Packet there is no vps for 265\n",
                 "VartoLogIOS [E] RtspSinker::MakeRtspH265Packet there is no sps for 265\n",
                 "VartoLogIOS [E] RtspSinker::MakeRtspH265Packet there is no pps for 265\n"}));
  // Extra data completes the sets: stored, pushed before the record, inserted.
  peer_->SendVideoPacket(H265(40, true, {kH265Idr}, true, true, true));
  EXPECT_EQ(low_->video()[1].vps, kH265Vps);
  EXPECT_EQ(NalUnits(*low_->video()[1].record),
            std::vector<Bytes>({kH265Vps, kH265Sps, kH265Pps, kH265Idr}));
  // Two of three kinds: nothing pushed, the missing kind inserted from store.
  peer_->SendVideoPacket(H265(80, true, {kOtherH265Sps, kH265Idr}, false, false, true));
  EXPECT_EQ(peer_->sps(), kH265Sps);
  // In-band SPS differs by one byte: all three pushed again, with a log line.
  log_.Clear();
  peer_->SendVideoPacket(H265(120, true, {kH265Vps, kOtherH265Sps, kH265Pps, kH265Idr}));
  EXPECT_EQ(
      log_.Matching("VartoLogIOS [I] RtspSinker h265 vps, sps or pps changed, need to re-send it\n")
          .size(),
      1u);
  EXPECT_EQ(low_->video()[3].sps, kOtherH265Sps);
  log_.Clear();
  peer_->SendVideoPacket(H265(160, true, {kH265Vps, kOtherH265Sps, kH265Pps, kH265Idr}));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(VideoTest, H265UnparsableAccessUnitIsDropped) {
  MakeSinker(false, true);
  OpenSession(nullptr, H265(0, true, {kH265Idr}, true, true, true));
  peer_->SendVideoPacket(MakePacket(QZMediaPacket::MediaTypeVideo, QZ_MEDIA_CODEC_ID_H265,
                                    {0x26, 0x01, 0x02}, true, 0));
  EXPECT_TRUE(low_->video().empty());
  EXPECT_TRUE(
      log_.Contains("VartoLogIOS [E] RtspSinker::SendH265Packet parser nal units failed\n"));
  EXPECT_TRUE(peer_->is_first_video());
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
    for (QZ_MEDIA_CODEC_ID codec : {QZ_MEDIA_CODEC_ID_H264, QZ_MEDIA_CODEC_ID_H265}) {
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
