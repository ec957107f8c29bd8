// The packet queue, the initialisation rules, the drop policy and the
// back-off of the send loop.
#include <string>
#include <vector>

#include "tests/publisher/sinker_fixture.h"

namespace qz_test {
namespace {

using QueueTest = SinkerTest;

struct OrderCase {
  const char* name;
  std::vector<long long> pushed;
  std::vector<long long> popped;
};

const OrderCase kOrderCases[] = {
    {"in_order", {10, 20, 30}, {10, 20, 30}},
    {"late_packet", {10, 30, 20}, {10, 20, 30}},
    {"new_head", {10, 20, 5}, {5, 10, 20}},
    {"ties_keep_push_order", {10, 20, 20}, {10, 20, 20}},
    {"late_tie_goes_after_equal", {10, 30, 20, 20}, {10, 20, 20, 30}},
    {"negative_and_huge", {0, -5, 1LL << 40}, {-5, 0, 1LL << 40}},
};

class QueueOrderTest : public SinkerTest, public ::testing::WithParamInterface<OrderCase> {};

TEST_P(QueueOrderTest, PopsInTimestampOrder) {
  RtspSinker& sinker = MakeSinker(true, true);
  peer_->set_send_thread_running(true);  // keeps the stopped-backlog bound out of this
  // Tag each packet with its push index in its payload size to see tie order.
  std::vector<QZ_MediaPacketRefPtr> pushed;
  for (size_t i = 0; i < GetParam().pushed.size(); ++i) {
    auto p = MakePacket(QZMediaPacket::MediaTypeAudio, QZ_MEDIA_CODEC_ID_AAC,
                        std::vector<QZ_BYTE>(i + 1, 0xAA), false, GetParam().pushed[i]);
    pushed.push_back(p);
    sinker.PushPacket(p);
  }
  EXPECT_EQ(peer_->StampedEntries(), peer_->QueueSize());
  std::vector<long long> popped;
  int last_size_for_equal = 0;
  long long last_ts = 0;
  while (QZ_MediaPacketRefPtr p = peer_->PopPacket()) {
    if (!popped.empty() && p->TimeStamp() == last_ts) {
      EXPECT_GT(p->Size(), last_size_for_equal) << "equal timestamps out of push order";
    }
    last_ts = p->TimeStamp();
    last_size_for_equal = p->Size();
    popped.push_back(p->TimeStamp());
  }
  EXPECT_EQ(popped, GetParam().popped);
  EXPECT_EQ(peer_->StampedEntries(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Table,
                         QueueOrderTest,
                         ::testing::ValuesIn(kOrderCases),
                         [](const ::testing::TestParamInfo<OrderCase>& info) {
                           return std::string(info.param.name);
                         });

// One packet queued twice (an encoder that repeats a frame) keeps its push
// stamp until its last entry leaves the queue.
TEST_F(QueueTest, PacketQueuedTwiceKeepsItsStampForBothEntries) {
  RtspSinker& sinker = MakeSinker(true, true);
  peer_->set_send_thread_running(true);
  QZ_MediaPacketRefPtr p = MakeAudio(10);
  sinker.PushPacket(p);
  sinker.PushPacket(p);
  EXPECT_EQ(peer_->StampedEntries(), 2u);
  peer_->PopPacket();
  EXPECT_EQ(peer_->StampedEntries(), 1u);
  peer_->PopPacket();
  EXPECT_EQ(peer_->StampedEntries(), 0u);
}

TEST_F(QueueTest, NullPacketIsIgnoredAndFlagsTrackFirstPackets) {
  RtspSinker& sinker = MakeSinker(true, true);
  sinker.PushPacket(QZ_MediaPacketRefPtr());
  EXPECT_EQ(peer_->QueueSize(), 0u);
  EXPECT_FALSE(peer_->is_recv_audio());
  sinker.PushPacket(MakeAudio(1));
  EXPECT_TRUE(peer_->is_recv_audio());
  EXPECT_FALSE(peer_->is_recv_video());
  sinker.PushPacket(MakeVideo(2, false));
  EXPECT_TRUE(peer_->is_recv_video());
}

TEST_F(QueueTest, SaveInitPacketKeepsFirstVideoUntilAKeyFrameAndLatestAudio) {
  MakeSinker(true, true);
  auto v1 = MakeVideo(0, false), v2 = MakeVideo(40, false), k3 = MakeVideo(80, true);
  peer_->SaveInitPacket(v1);
  peer_->SaveInitPacket(v2);
  EXPECT_EQ(peer_->init_video_packet().get(), v1.get());
  peer_->SaveInitPacket(k3);
  EXPECT_EQ(peer_->init_video_packet().get(), k3.get());
  auto a1 = MakeAudio(0), a2 = MakeAudio(20);
  peer_->SaveInitPacket(a1);
  peer_->SaveInitPacket(a2);
  EXPECT_EQ(peer_->init_audio_packet().get(), a2.get());
}

struct InitWaitCase {
  const char* name;
  bool stream_audio, stream_video;
  bool saved_audio, saved_video;
  QZ_UINT64 elapsed_ms;
  bool can_init;
};

const InitWaitCase kInitWaitCases[] = {
    {"both_saved", true, true, true, true, 0, true},
    {"nothing_saved", true, true, false, false, 100000, false},
    {"video_only_stream", false, true, false, true, 0, true},
    {"audio_only_stream", true, false, true, false, 0, true},
    {"video_waits_for_audio", true, true, false, true, 5000, false},
    {"video_gives_up_after_5s", true, true, false, true, 5001, true},
    {"audio_waits_for_video", true, true, true, false, 4999, false},
    {"audio_gives_up_after_5s", true, true, true, false, 5001, true},
};

class InitWaitTest : public SinkerTest, public ::testing::WithParamInterface<InitWaitCase> {};

TEST_P(InitWaitTest, IsCanInitRtsp) {
  const InitWaitCase& c = GetParam();
  MakeSinker(c.stream_audio, c.stream_video);
  if (c.saved_audio) {
    peer_->SaveInitPacket(MakeAudio(0));
  }
  if (c.saved_video) {
    peer_->SaveInitPacket(MakeVideo(0, true));
  }
  clock_.Advance(c.elapsed_ms);
  EXPECT_EQ(peer_->IsCanInitRtsp(), c.can_init);
}

INSTANTIATE_TEST_SUITE_P(Table,
                         InitWaitTest,
                         ::testing::ValuesIn(kInitWaitCases),
                         [](const ::testing::TestParamInfo<InitWaitCase>& info) {
                           return std::string(info.param.name);
                         });

TEST_F(QueueTest, GetSleepCount) {
  MakeSinker(true, true);
  const std::pair<int, int> cases[] = {{-5, 0},    {0, 0},      {1, 20},
                                       {2, 80},    {3, 140},    {20, 1160},
                                       {21, 1200}, {100, 1200}, {1 << 30, 1200}};
  for (const auto& c : cases) {
    EXPECT_EQ(peer_->GetSleepCount(c.first), c.second) << "seed " << c.first;
  }
}

TEST_F(QueueTest, SleepDropPacketDrainsAndSleepsPerStep) {
  RtspSinker& sinker = MakeSinker(true, true);
  for (int i = 0; i < 50; ++i) {
    sinker.PushPacket(MakeAudio(i));
  }
  clock_.clear_sleeps();
  peer_->SleepDropPacket(3);
  EXPECT_EQ(peer_->QueueSize(), 0u);
  EXPECT_EQ(clock_.sleeps(), std::vector<int>({10, 10, 10}));

  for (int i = 0; i < 5; ++i) {
    sinker.PushPacket(MakeAudio(i));
  }
  clock_.clear_sleeps();
  peer_->set_send_thread_exit(true);
  peer_->SleepDropPacket(1200);
  EXPECT_EQ(peer_->QueueSize(), 0u);
  EXPECT_TRUE(clock_.sleeps().empty());
}

// ---- drop policy -------------------------------------------------------------

// A compact queue description: K<ts> key frame, P<ts> other video, A<ts> audio.
void Fill(RtspSinker& sinker, const std::vector<std::string>& items) {
  for (const std::string& item : items) {
    const long long ts = std::stoll(item.substr(1));
    if (item[0] == 'A') {
      sinker.PushPacket(MakeAudio(ts));
    } else {
      sinker.PushPacket(MakeVideo(ts, item[0] == 'K'));
    }
  }
}

std::vector<std::string> Describe(RtspSinkerTestPeer& peer) {
  std::vector<std::string> out;
  for (const auto& p : peer.Queued()) {
    const char kind = p->GetMediaType() == QZMediaPacket::MediaTypeAudio ? 'A'
                      : p->IsKeyFrame()                                  ? 'K'
                                                                         : 'P';
    out.push_back(kind + std::to_string(p->TimeStamp()));
  }
  return out;
}

struct DropCase {
  const char* name;
  QZ_UINT64 delay;
  std::vector<std::string> queue;
  std::vector<std::string> remaining;
  std::vector<std::string> log;
  bool flag_after;
};

const DropCase kDropCases[] = {
    {"below_threshold", 2499, {"P1", "P2", "K3", "P4"}, {"P1", "P2", "K3", "P4"}, {}, false},
    {"moderate_too_few_frames", 3000, {"P1", "K2"}, {"P1", "K2"}, {}, false},
    {"moderate_no_key_frame", 3000, {"P1", "P2", "P3"}, {"P1", "P2", "P3"}, {}, false},
    {"moderate_worked_example",
     3000,
     {"P1", "A1", "P2", "K3", "P4"},
     {"A1", "K3", "P4"},
     {"VartoLogIOS [I] RtspSinker$$$##11 drop video nk frame timestamp=1, delay_t=3000, c=4, "
      "key=1\n",
      "VartoLogIOS [I] RtspSinker$$$##11 drop video nk frame timestamp=2, delay_t=3000, c=4, "
      "key=1\n"},
     false},
    {"moderate_at_3500",
     3500,
     {"P1", "K2", "P3"},
     {"K2", "P3"},
     {"VartoLogIOS [I] RtspSinker$$$##11 drop video nk frame timestamp=1, delay_t=3500, c=3, "
      "key=1\n"},
     false},
    {"heavy_worked_example",
     4000,
     {"K1000", "P1040", "K2000", "P2040", "K4200", "P5000"},
     {"K4200", "P5000"},
     {"VartoLogIOS [I] RtspSinker###$$$3 drop video key frame timestamp=1000, delay_t=4000\n",
      "VartoLogIOS [I] RtspSinker##$$22222 drop video nk frame timestamp=1040, delay_t=4000\n",
      "VartoLogIOS [I] RtspSinker###$$$3 drop video key frame timestamp=2000, delay_t=4000\n",
      "VartoLogIOS [I] RtspSinker##$$22222 drop video nk frame timestamp=2040, delay_t=4000\n",
      "VartoLogIOS [I] RtspSinker drop count=4, drop key frame count=2, delay_t=4000\n"},
     false},
    {"heavy_drops_everything",
     3600,
     {"P0", "P40", "K100", "P140", "P3600"},
     {},
     {"VartoLogIOS [I] RtspSinker##$$22222 drop video nk frame timestamp=0, delay_t=3600\n",
      "VartoLogIOS [I] RtspSinker##$$22222 drop video nk frame timestamp=40, delay_t=3600\n",
      "VartoLogIOS [I] RtspSinker###$$$3 drop video key frame timestamp=100, delay_t=3600\n",
      "VartoLogIOS [I] RtspSinker##$$22222 drop video nk frame timestamp=140, delay_t=3600\n",
      "VartoLogIOS [I] RtspSinker##$$22222 drop video nk frame timestamp=3600, delay_t=3600\n",
      "VartoLogIOS [I] RtspSinker drop count=5, drop key frame count=1, delay_t=3600\n"},
     true},
    {"heavy_keeps_audio",
     3501,
     {"A0", "P10", "A20", "K3000"},
     {"A0", "A20", "K3000"},
     {"VartoLogIOS [I] RtspSinker##$$22222 drop video nk frame timestamp=10, delay_t=3501\n",
      "VartoLogIOS [I] RtspSinker drop count=1, drop key frame count=0, delay_t=3501\n"},
     false},
    {"heavy_audio_only",
     4000,
     {"A0", "A20"},
     {"A0", "A20"},
     {"VartoLogIOS [I] RtspSinker drop count=0, drop key frame count=0, delay_t=4000\n"},
     false},
};

class DropTest : public SinkerTest, public ::testing::WithParamInterface<DropCase> {};

TEST_P(DropTest, DropPacket) {
  const DropCase& c = GetParam();
  RtspSinker& sinker = MakeSinker(true, true);
  peer_->set_send_thread_running(true);
  Fill(sinker, c.queue);
  log_.Clear();
  peer_->DropPacket(c.delay);
  EXPECT_EQ(Describe(*peer_), c.remaining);
  EXPECT_EQ(log_.lines(), c.log);
  EXPECT_EQ(peer_->is_no_complete_video_packet_drop(), c.flag_after);
  EXPECT_EQ(peer_->StampedEntries(), peer_->QueueSize());
}

INSTANTIATE_TEST_SUITE_P(Table,
                         DropTest,
                         ::testing::ValuesIn(kDropCases),
                         [](const ::testing::TestParamInfo<DropCase>& info) {
                           return std::string(info.param.name);
                         });

TEST_F(QueueTest, HeavyPassClearsFlagWhenItStopsAtAKeyFrame) {
  RtspSinker& sinker = MakeSinker(true, true);
  peer_->set_send_thread_running(true);
  peer_->set_is_no_complete_video_packet_drop(true);
  Fill(sinker, {"P0", "K3000", "P3600"});
  peer_->DropPacket(3600);
  EXPECT_FALSE(peer_->is_no_complete_video_packet_drop());
}

TEST_F(QueueTest, VideoDelaySkipsAudio) {
  RtspSinker& sinker = MakeSinker(true, true);
  peer_->set_send_thread_running(true);
  EXPECT_EQ(peer_->GetVideoDelayTime(), 0u);
  Fill(sinker, {"A0", "P100", "A200"});
  EXPECT_EQ(peer_->GetVideoDelayTime(), 0u);
  Fill(sinker, {"K2700", "A9000"});
  EXPECT_EQ(peer_->GetVideoDelayTime(), 2600u);
}

// A stopped sinker fed for a long time keeps a few seconds that start at a
// key frame, audio included, instead of growing without limit.
TEST_F(QueueTest, StoppedSinkerBoundsItsBacklogAtAKeyFrame) {
  RtspSinker& sinker = MakeSinker(true, true);
  for (long long t = 0; t < 60000; t += 20) {
    if (t % 40 == 0) {
      sinker.PushPacket(MakeVideo(t, t % 2000 == 0));
    }
    sinker.PushPacket(MakeAudio(t + 1));
  }
  const auto queued = peer_->Queued();
  ASSERT_FALSE(queued.empty());
  const long long span = queued.back()->TimeStamp() - queued.front()->TimeStamp();
  EXPECT_LE(span, 3000);
  EXPECT_GE(span, 1000);
  EXPECT_EQ(queued.front()->GetMediaType(), QZMediaPacket::MediaTypeVideo);
  EXPECT_TRUE(queued.front()->IsKeyFrame());
  EXPECT_EQ(peer_->StampedEntries(), queued.size());
}

TEST_F(QueueTest, StoppedSinkerWithoutKeyFramesKeepsOnlyRecentAudio) {
  RtspSinker& sinker = MakeSinker(true, true);
  for (long long t = 0; t < 20000; t += 40) {
    sinker.PushPacket(MakeVideo(t, false));
    sinker.PushPacket(MakeAudio(t));
  }
  for (const auto& p : peer_->Queued()) {
    EXPECT_EQ(p->GetMediaType(), QZMediaPacket::MediaTypeAudio);
    EXPECT_GE(p->TimeStamp(), 20000 - 40 - 3000);
  }
  // Timestamps that never advance are bounded by count.
  for (int i = 0; i < 5000; ++i) {
    sinker.PushPacket(MakeAudio(7));
  }
  EXPECT_LE(peer_->QueueSize(), 2048u);
  EXPECT_EQ(peer_->StampedEntries(), peer_->QueueSize());
}

// ---- the send loop -------------------------------------------------------------

TEST_F(QueueTest, FailedInitBacksOffWithGrowingSteps) {
  RtspSinker& sinker = MakeSinker(false, true, /*servers=*/{});
  ASSERT_TRUE(sinker.Start());
  long long ts = 0;
  ASSERT_TRUE(WaitFor([&] {
    sinker.PushPacket(MakeVideo(ts += 40, true));
    return log_.Matching("VartoLogIOS [I] RtspSinker initFailedCount=").size() >= 3;
  }));
  sinker.Stop();
  const auto failures = log_.Matching("VartoLogIOS [I] RtspSinker initFailedCount=");
  EXPECT_EQ(failures[0], "VartoLogIOS [I] RtspSinker initFailedCount=1, sleepCount=20\n");
  EXPECT_EQ(failures[1], "VartoLogIOS [I] RtspSinker initFailedCount=2, sleepCount=80\n");
  EXPECT_EQ(failures[2], "VartoLogIOS [I] RtspSinker initFailedCount=3, sleepCount=140\n");
  EXPECT_TRUE(log_.Contains("VartoLogIOS [I] RtspSinker::InitRtsp rtsp_servers is empty.\n"));
  EXPECT_GE(log_.Matching("VartoLogIOS [I] RtspSinker init\n").size(), 3u);
}

TEST_F(QueueTest, StopDuringLongBackOffEndsPromptly) {
  RtspSinker& sinker = MakeSinker(false, true, /*servers=*/{});
  ASSERT_TRUE(sinker.Start());
  long long ts = 0;
  // Drive the failure count up to a long back-off.
  ASSERT_TRUE(WaitFor([&] {
    sinker.PushPacket(MakeVideo(ts += 40, true));
    return !log_.Matching("VartoLogIOS [I] RtspSinker initFailedCount=4,").empty();
  }));
  const auto before = std::chrono::steady_clock::now();
  sinker.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
}

TEST_F(QueueTest, PacketOlderThanOriginIsReportedAndNotSent) {
  RtspSinker& sinker = MakeSinker(false, true, {Handle(0x1000)});
  sinker.PushPacket(MakeVideo(1000, true));
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 1; }));
  sinker.PushPacket(MakeVideo(900, false));
  sinker.PushPacket(MakeVideo(1040, false));
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 2; }));
  sinker.Stop();
  EXPECT_EQ(low_->video().size(), 2u);
  EXPECT_TRUE(log_.Contains(
      "VartoLogIOS [E] RtspSinker packet->TimeStamp() < send_first_frame_timestamp_,timestamp:900, "
      "send_first_frame_timestamp_=:1000, frame media type=:1\n"));
}

// The loop sends K0, then finds 3600 ms of video queued without a usable key
// frame and drops it all; arriving non-key video is then discarded until the
// next key frame, while audio keeps flowing.
TEST_F(QueueTest, AfterAHeavyDropNonKeyVideoWaitsForAKeyFrame) {
  RtspSinker& sinker = MakeSinker(true, true, {Handle(0x1000)});
  // Queue the backlog as if a thread were running, so that the stopped
  // sinker's own bound leaves it alone.
  peer_->set_send_thread_running(true);
  Fill(sinker, {"A0", "K0", "P40", "K100", "P140", "P3640"});
  peer_->set_send_thread_running(false);
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(WaitFor([&] {
    return !log_.Matching("VartoLogIOS [I] RtspSinker drop count=4, drop key frame count=1")
                .empty();
  }));
  Fill(sinker, {"P3680", "A3700", "K3720", "P3760"});
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 3 && low_->audio().size() == 1; }));
  sinker.Stop();
  std::vector<QZ_UINT64> video_times;
  for (const auto& v : low_->video()) {
    video_times.push_back(v.record->time_stamp_);
  }
  EXPECT_EQ(video_times, std::vector<QZ_UINT64>({0, 3720, 3760}));
  EXPECT_EQ(low_->audio()[0].record->time_stamp_, 3700u);
}

#ifdef NDEBUG
// Without assertions a packet of neither media type is dropped by the send
// loop and never reaches a send path.
TEST_F(QueueTest, PacketOfNeitherKindIsDroppedWithoutAssertions) {
  RtspSinker& sinker = MakeSinker(false, true, {Handle(0x1000)});
  sinker.PushPacket(MakeVideo(0, true));
  sinker.PushPacket(MakePacket(QZMediaPacket::MediaTypeUnKnown, QZ_MEDIA_CODEC_ID_H264,
                               AnnexB({kH264Slice}), false, 40));
  sinker.PushPacket(MakeVideo(80, false));
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 2; }));
  sinker.Stop();
  EXPECT_EQ(low_->video()[1].record->time_stamp_, 80u);
}
#endif

}  // namespace
}  // namespace qz_test
