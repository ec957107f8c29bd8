#include <chrono>
#include <string>
#include <vector>

#include "tests/publisher/sinker_fixture.h"
#include "topcommon/qz_event_define.h"

namespace qz_test {
namespace {

using LifecycleTest = SinkerTest;

TEST_F(LifecycleTest, NewSinkerDefaults) {
  RtspSinker& sinker = MakeSinker(true, true);
  EXPECT_EQ(sinker.GetType(), 3);
  EXPECT_EQ(peer_->sample_rate(), 44100);
  EXPECT_EQ(peer_->channels(), 2);
  EXPECT_EQ(peer_->video_kbitrate(), 0u);
  EXPECT_EQ(peer_->PipleCount(), 0u);
}

TEST_F(LifecycleTest, StartTwiceThenStopLogsInOrder) {
  RtspSinker& sinker = MakeSinker(true, true);
  log_.Clear();
  EXPECT_TRUE(sinker.Start());
  EXPECT_TRUE(sinker.Start());
  sinker.Stop();
  sinker.Stop();  // a second Stop does nothing
  std::vector<std::string> lines;
  for (const std::string& line : log_.lines()) {
    if (line.find("Process++") == std::string::npos) {
      lines.push_back(line);
    }
  }
  const std::vector<std::string> expected = {
      "VartoLogIOS [I] RtspSinker::Start++\n",
      "VartoLogIOS [I] RtspSinker::StartSendThread++\n",
      "VartoLogIOS [I] RtspSinker::StartSendThread--, ret:0\n",
      "VartoLogIOS [I] RtspSinker::Start--\n",
      "VartoLogIOS [I] RtspSinker::Start++\n",
      "VartoLogIOS [I] RtspSinker::Start is running\n",
      "VartoLogIOS [I] RtspSinker::Stop++\n",
      "VartoLogIOS [I] rtsp sinker stop thread ret=0\n",
      "VartoLogIOS [I] RtspSinker::Stop--\n",
  };
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(log_.Matching("VartoLogIOS [I] RtspSinker::Process++").size(), 1u);
}

TEST_F(LifecycleTest, StopWithoutStartIsSilent) {
  RtspSinker& sinker = MakeSinker(true, true);
  log_.Clear();
  sinker.Stop();
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(LifecycleTest, SettersLogAndStore) {
  RtspSinker& sinker = MakeSinker(true, true);
  log_.Clear();
  sinker.SetVideoKBitrate(4000);
  sinker.SetRtspServers({Handle(0x1000)});
  EXPECT_EQ(log_.lines(), std::vector<std::string>(
                              {"VartoLogIOS [I] RtspSinker::SetVideoKBitrate..kbitrate:4000\n",
                               "VartoLogIOS [I] RtspSinker::SetRtspServers..\n"}));
  EXPECT_EQ(peer_->video_kbitrate(), 4000u);
}

TEST_F(LifecycleTest, EmptyUserDataIsIgnored) {
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

// Packets pushed while stopped stay queued and are sent by the next run;
// each session announces its URLs afresh.
TEST_F(LifecycleTest, StartStopStartKeepsQueueAndReannouncesUrls) {
  low_->set_url_on_accept("rtsp://127.0.0.1:8554/live");
  RtspSinker& sinker = MakeSinker(false, true, {Handle(0x1000)});
  sinker.PushPacket(MakeVideo(0, true));
  sinker.PushPacket(MakeVideo(40, false));
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 2; }));
  sinker.Stop();
  EXPECT_EQ(low_->withdrawn().size(), 1u);

  sinker.PushPacket(MakeVideo(80, true));
  sinker.PushPacket(MakeVideo(120, false));
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 4; }));
  sinker.Stop();

  int url_events = 0;
  while (qz_top_common::InnerEvent* e = events_.PopEvent()) {
    if (e->id_ == EVENT_KESTRAVOX_ERC_PUBLISHER_RTSP_URL) {
      ++url_events;
      EXPECT_EQ(e->param1_, 0x1000u);
      EXPECT_EQ(e->param3_, "rtsp://127.0.0.1:8554/live");
    }
    events_.DeleteEvent(e);
  }
  EXPECT_EQ(url_events, 2);
  // The second session's time origin is its own first packet.
  EXPECT_EQ(low_->video()[2].record->time_stamp_, 0u);
  EXPECT_EQ(low_->video()[3].record->time_stamp_, 40u);
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
