// The stream's packet ring as a GOP cache: what a viewer that joins now
// would be sent must always start at a key frame, the latest GOP survives the
// soft byte bound, and past the hard cap the cache is dropped and a key frame
// asked for. The RTP time of AAC frames. And the gate that hands the
// publisher's records to the network thread in batches.
#include "protocol/rtsp_in_server/media/qz_rtsp_stream.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "tests/fakes/fake_seams.h"
#include "tests/fakes/test_support.h"

namespace qz_rtsp_internal_server {
namespace {

using Bytes = std::vector<uint8_t>;

struct CacheCase {
  const char* name;
  bool keep_gop;
  std::string frames;  // K: a 3000-byte key frame, P: a 1000-byte slice
  bool has_key;        // a key frame is held at the end
  int cache_lost;      // times a key frame was asked for
};

// Byte bound 12000: a key frame and about eight slices; hard cap twice that.
const CacheCase kCacheCases[] = {
    {"OlderGopsGoTheLatestStays", true, "KPPPKPPKP", true, 0},
    {"GopOverTheSoftBoundIsKept", true, "KPPPPPPPPPPPPPP", true, 0},
    {"GopOverTheHardCapIsDroppedAndAKeyFrameAsked", true, "K" + std::string(24, 'P'), false, 1},
    {"NewKeyFrameAfterTheDropRefills", true, "K" + std::string(24, 'P') + "KPP", true, 1},
    {"WithoutTheCacheNothingIsHeld", false, "KPPKPP", false, 0},
};

class GopCacheTest : public ::testing::TestWithParam<CacheCase> {};

TEST_P(GopCacheTest, CacheStartsAtAKeyFrameWithinItsBounds) {
  const CacheCase& c = GetParam();
  auto piple = std::make_shared<QZRtspPacketPiple>("cam");
  piple->IsHasVideo(true);
  piple->SetVideoCodecID(QZ_MEDIA_CODEC_ID_H264);
  piple->SetSpsPps(qz_test::kH264Sps.data(), 7, qz_test::kH264Pps.data(), 4);
  // Nothing is posted: the test hands the records to the stream itself.
  auto gate = std::make_shared<RtspIoGate>([](std::function<void()>) {});
  RtspStreamLimits limits;
  limits.max_ring_bytes = 12000;
  limits.keep_gop = c.keep_gop;
  qz_test::CountingRandom random;
  RtspStream stream(piple, gate, limits, random);
  int lost = 0;
  stream.set_on_cache_lost([&lost](RtspStream&) { ++lost; });

  long long t = 0;
  for (char f : c.frames) {
    auto record = std::make_shared<QZRtspVideoPacket>();
    record->codec_id_ = QZ_MEDIA_CODEC_ID_H264;
    record->is_key_frame_ = f == 'K';
    record->time_stamp_ = static_cast<QZ_UINT64>(t += 40);
    if (record->is_key_frame_) {
      record->nal_units_.push_back(qz_test::PacketData(qz_test::kH264Sps));
      record->nal_units_.push_back(qz_test::PacketData(qz_test::kH264Pps));
      record->nal_units_.push_back(qz_test::PacketData(Bytes(3000, 0x65)));
    } else {
      record->nal_units_.push_back(qz_test::PacketData(Bytes(1000, 0x41)));
    }
    stream.OnVideo(record);
    // After every record: whatever a joining viewer gets begins at a key frame.
    if (stream.has_key_frame()) {
      ASSERT_EQ(stream.begin_index(), stream.last_key_index()) << "after frame " << t / 40;
      ASSERT_TRUE(stream.At(stream.begin_index())->key_frame_start);
    }
  }
  EXPECT_EQ(stream.has_key_frame(), c.has_key);
  EXPECT_EQ(lost, c.cache_lost);
  EXPECT_EQ(stream.Stats().cache_bytes > 0, c.has_key);
  EXPECT_LE(stream.Stats().cache_bytes, limits.max_ring_bytes * RtspStream::kHardCapFactor);
}

INSTANTIATE_TEST_SUITE_P(Table,
                         GopCacheTest,
                         ::testing::ValuesIn(kCacheCases),
                         [](const ::testing::TestParamInfo<CacheCase>& info) {
                           return std::string(info.param.name);
                         });

struct AacConfig {
  int obj_type;      // 0: the pipe has no AudioSpecificConfig
  int short_frames;  // frameLengthFlag
  int samples;       // what a frame really lasts
};

struct AacTimingCase {
  const char* name;
  int rate;
  AacConfig first;
  AacConfig then;  // the pipe's config after ten minutes
};

const AacTimingCase kAacTimingCases[] = {
    {"Lc1024At44100", 44100, {2, 0, 1024}, {2, 1, 960}},
    {"Lc960At44100", 44100, {2, 1, 960}, {23, 0, 512}},
    {"Ld512At44100", 44100, {23, 0, 512}, {39, 1, 480}},
    {"Eld480At44100", 44100, {39, 1, 480}, {2, 0, 1024}},
    {"Lc1024At48000", 48000, {2, 0, 1024}, {39, 0, 512}},
    {"Lc960At48000", 48000, {2, 1, 960}, {23, 1, 480}},
    {"Eld512At48000", 48000, {39, 0, 512}, {2, 1, 960}},
    {"Ld480At48000", 48000, {23, 1, 480}, {2, 0, 1024}},
    {"NoConfigAt48000", 48000, {0, 0, 480}, {23, 1, 480}},
};

// audioObjectType (5 bits; 31 and 6 more from 32 on), samplingFrequencyIndex
// (4), channelConfiguration (4, stereo), frameLengthFlag, zero padding.
Bytes AudioSpecificConfig(const AacConfig& config, int rate) {
  if (config.obj_type == 0) {
    return {};
  }
  std::vector<std::pair<int, int>> fields;  // value, bits
  if (config.obj_type >= 32) {
    fields = {{31, 5}, {config.obj_type - 32, 6}};
  } else {
    fields = {{config.obj_type, 5}};
  }
  fields.insert(fields.end(), {{rate == 48000 ? 3 : 4, 4}, {2, 4}, {config.short_frames, 1}});
  Bytes out;
  int bit = 0;
  for (const auto& field : fields) {
    for (int i = field.second - 1; i >= 0; --i, ++bit) {
      if (bit % 8 == 0) {
        out.push_back(0);
      }
      out.back() |= static_cast<uint8_t>(((field.first >> i) & 1) << (7 - bit % 8));
    }
  }
  return out;
}

class AacTimingTest : public ::testing::TestWithParam<AacTimingCase> {};

// Record times are each frame's true time rounded to the millisecond. A frame
// whose predecessor's length the stream can know is stamped exactly that
// length later; the first frame, the frame after a lost one and frames
// without a usable config are stamped from their record times.
TEST_P(AacTimingTest, RtpTimeAdvancesByTheConfiguredFrameLength) {
  const AacTimingCase& c = GetParam();
  auto piple = std::make_shared<QZRtspPacketPiple>("mic");
  piple->IsHasAudio(true);
  piple->SetAudioCodecID(QZ_MEDIA_CODEC_ID_AAC);
  piple->SetAudioInfo(c.rate, 2);
  const auto set_config = [&](const AacConfig& config) {
    const Bytes asc = AudioSpecificConfig(config, c.rate);
    piple->SetAudioSpecificConfig(asc.empty() ? nullptr : asc.data(),
                                  static_cast<QZ_UINT32>(asc.size()));
  };
  set_config(c.first);
  qz_test::CountingRandom random;
  RtspStream stream(piple, std::make_shared<RtspIoGate>([](std::function<void()>) {}),
                    RtspStreamLimits(), random);

  long long position = 0;  // the next frame's true time, in samples
  bool started = false;
  uint32_t offset = 0;  // the track's random RTP time for record time 0
  uint32_t last = 0;
  int step = 0;  // the previous frame's length as the stream can know it
  const auto feed = [&](const AacConfig& config) -> ::testing::AssertionResult {
    const long long ms = (position * 2000 + c.rate) / (2LL * c.rate);
    auto record = std::make_shared<QZRtspAudioPacket>();
    record->codec_id_ = QZ_MEDIA_CODEC_ID_AAC;
    record->sample_rate_ = c.rate;
    record->channels_ = 2;
    record->time_stamp_ = static_cast<QZ_UINT64>(ms);
    record->data_ = qz_test::PacketData(Bytes(6, 0x21));
    stream.OnAudio(record);
    // The sender report pairs the newest packet's RTP time with its record time.
    const std::vector<uint8_t> sr = stream.SenderReport(0);
    uint32_t rtp = 0;
    for (size_t i = 16; i < 20; ++i) {
      rtp = rtp << 8 | sr.at(i);
    }
    const uint32_t by_record = static_cast<uint32_t>(ms * c.rate / 1000);
    if (!started) {  // the offset is random: the first frame tells it
      started = true;
      offset = rtp - by_record;
    }
    const uint32_t want = step > 0 ? last + static_cast<uint32_t>(step) : offset + by_record;
    last = rtp;
    step = config.obj_type != 0 ? config.samples : 0;
    position += config.samples;
    if (rtp != want) {
      return ::testing::AssertionFailure()
             << "frame at " << ms << " ms: RTP time " << rtp - offset << ", want " << want - offset;
    }
    return ::testing::AssertionSuccess();
  };

  const long long minute = 60LL * c.rate;
  while (position < 5 * minute) {
    ASSERT_TRUE(feed(c.first));
  }
  position += c.first.samples;  // a lost frame
  step = 0;
  while (position < 10 * minute) {
    ASSERT_TRUE(feed(c.first));
  }
  set_config(c.then);
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(feed(c.then));
  }
}

INSTANTIATE_TEST_SUITE_P(Table,
                         AacTimingTest,
                         ::testing::ValuesIn(kAacTimingCases),
                         [](const ::testing::TestParamInfo<AacTimingCase>& info) {
                           return std::string(info.param.name);
                         });

// Work posted while a batch waits joins it; the network thread is asked
// once per batch, runs it in order, and nothing passes a closed gate.
TEST(RtspIoGateTest, PostsJoinTheWaitingBatch) {
  // What the network thread was given (a deque: a batch may add to it while
  // it runs).
  std::deque<std::function<void()>> handed;
  auto gate = std::make_shared<RtspIoGate>(
      [&handed](std::function<void()> batch) { handed.push_back(std::move(batch)); });
  std::string ran;
  for (char c : std::string("abc")) {
    gate->Post([&ran, c] { ran += c; });
  }
  ASSERT_EQ(handed.size(), 1u);
  handed[0]();
  EXPECT_EQ(ran, "abc");
  // Posted while the batch runs: a batch of its own.
  gate->Post([&] {
    gate->Post([&ran] { ran += 'e'; });
    ran += 'd';
  });
  ASSERT_EQ(handed.size(), 2u);
  handed[1]();
  ASSERT_EQ(handed.size(), 3u);
  handed[2]();
  EXPECT_EQ(ran, "abcde");
  gate->Post([&ran] { ran += 'x'; });
  gate->Close();
  gate->Post([&ran] { ran += 'y'; });
  ASSERT_EQ(handed.size(), 4u);
  handed[3]();  // handed over before Close(): still runs
  EXPECT_EQ(ran, "abcdex");
}

}  // namespace
}  // namespace qz_rtsp_internal_server
