// The stream's packet ring as a GOP cache: what a viewer that joins now
// would be sent must always start at a key frame, the latest GOP survives the
// soft byte bound, and past the hard cap the cache is dropped and a key frame
// asked for. And the gate that hands the publisher's records to the network
// thread in batches.
#include "protocol/rtsp_in_server/qz_rtsp_stream.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
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
  RtspStream stream(piple, gate, limits, 1);
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
