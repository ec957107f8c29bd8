// Start, Stop, restart and destruction of the sinker and its send thread.
#include <chrono>
#include <string>
#include <vector>

#include "tests/publisher/sinker_fixture.h"

namespace qz_test {
namespace {

using LifecycleTest = SinkerTest;

// A second Start runs no second send thread; Stop without a running thread,
// before the first Start or after a Stop, does nothing.
TEST_F(LifecycleTest, StartAndStopAreIdempotent) {
  RtspSinker& sinker = MakeSinker(true, true);
  log_.Clear();
  sinker.Stop();
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_TRUE(sinker.Start());
  EXPECT_TRUE(sinker.Start());
  sinker.Stop();
  sinker.Stop();
  EXPECT_EQ(log_.Matching("VartoLogIOS [I] RtspSinker::Process++").size(), 1u);
  EXPECT_EQ(log_.Matching("VartoLogIOS [I] rtsp sinker stop thread ret=0").size(), 1u);
}

TEST_F(LifecycleTest, UserDataQueueTakesItemsAndClears) {
  RtspSinker& sinker = MakeSinker(true, true);
  std::shared_ptr<qz_common::PublisherUserData> empty;
  sinker.PostUserData(empty);
  EXPECT_EQ(peer_->UserDataQueued(), 0u);
  auto item = std::make_shared<qz_common::PublisherUserData>();
  item->SetUTF8String("x");
  sinker.PostUserData(item);
  EXPECT_EQ(peer_->UserDataQueued(), 1u);
  sinker.ClearPostUserDataQueue();
  EXPECT_EQ(peer_->UserDataQueued(), 0u);
}

// Packets pushed while stopped stay queued and are sent by the next run.
// Each session announces its URLs afresh, also one the server sets only after
// the session's first packets went out.
TEST_F(LifecycleTest, StartStopStartKeepsQueueAndReannouncesUrls) {
  low_->set_url_on_accept("rtsp://127.0.0.1:8554/live");
  RtspSinker& sinker = MakeSinker(false, true, {Handle(0x1000)});
  sinker.PushPacket(MakeVideo(0, true));
  sinker.PushPacket(MakeVideo(40, false));
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 2; }));
  sinker.Stop();
  EXPECT_EQ(low_->withdrawn().size(), 1u);
  EXPECT_EQ(UrlEvents(), Urls({{0x1000, "rtsp://127.0.0.1:8554/live"}}));

  low_->set_url_on_accept("");
  sinker.PushPacket(MakeVideo(80, true));
  sinker.PushPacket(MakeVideo(120, false));
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 4; }));
  EXPECT_TRUE(UrlEvents().empty());
  low_->pipes()[0]->SetRtspURL("rtsp://late/live");
  sinker.PushPacket(MakeVideo(160, false));
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 5; }));
  sinker.Stop();
  EXPECT_EQ(UrlEvents(), Urls({{0x1000, "rtsp://late/live"}}));
  // The second session's time origin is its own first packet.
  EXPECT_EQ(low_->video()[2].record->time_stamp_, 0u);
  EXPECT_EQ(low_->video()[3].record->time_stamp_, 40u);
  // Each session withdrew its pipe once; destruction withdraws nothing more.
  EXPECT_EQ(low_->withdrawn().size(), 2u);
  sinker_.reset();
  EXPECT_EQ(low_->withdrawn().size(), 2u);
}

TEST_F(LifecycleTest, DestroyingAStartedSinkerJoinsAndWithdraws) {
  RtspSinker& sinker = MakeSinker(false, true, {Handle(0x1000)});
  sinker.PushPacket(MakeVideo(0, true));
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 1; }));
  log_.Clear();
  sinker_.reset();
  EXPECT_EQ(low_->withdrawn().size(), 1u);
  EXPECT_TRUE(low_->pipes().empty());
  EXPECT_EQ(log_.lines(),
            std::vector<std::string>({"VartoLogIOS [I] rtsp sinker stop thread ret=0\n"}));
}

TEST_F(LifecycleTest, RecordsCarryThePushTimeOfTheirFrame) {
  const auto now_us = [] {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  };
  RtspSinker& sinker = MakeSinker(true, true, {Handle(0x1000)});
  ASSERT_TRUE(sinker.Start());
  sinker.PushPacket(MakeVideo(0, true));
  sinker.PushPacket(MakeAudio(0, QZ_MEDIA_CODEC_ID_PCMA));
  ASSERT_TRUE(WaitFor([&] { return !low_->audio().empty(); }));  // the session is open
  const long long before = now_us();
  sinker.PushPacket(MakeVideo(40, true));
  sinker.PushPacket(MakeAudio(40, QZ_MEDIA_CODEC_ID_PCMA));
  const long long between = now_us();
  sinker.PushPacket(MakeVideo(80, false));
  sinker.PushPacket(MakeAudio(80, QZ_MEDIA_CODEC_ID_PCMA));
  const long long after = now_us();
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() >= 2 && low_->audio().size() >= 3; }));
  sinker.Stop();
  const auto video = low_->video();
  const auto audio = low_->audio();
  const size_t v = video.size(), a = audio.size();
  for (long long t : {video[v - 2].record->pushed_us_, audio[a - 2].record->pushed_us_}) {
    EXPECT_GE(t, before);
    EXPECT_LE(t, between);
  }
  for (long long t : {video[v - 1].record->pushed_us_, audio[a - 1].record->pushed_us_}) {
    EXPECT_GE(t, between);
    EXPECT_LE(t, after);
  }
}

}  // namespace
}  // namespace qz_test
