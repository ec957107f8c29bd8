// The packet queue, the initialisation rules, the drop policy and the
// back-off of the send loop.
#include <climits>
#include <sstream>

#include "tests/publisher/sinker_fixture.h"

namespace qz_test {
namespace {

using QueueTest = SinkerTest;

// A compact queue description: K<ts> key frame, P<ts> other video, A<ts> audio.
void Fill(RtspSinker& sinker, const std::string& items) {
  std::istringstream in(items);
  for (std::string item; in >> item;) {
    const long long ts = std::stoll(item.substr(1));
    sinker.PushPacket(item[0] == 'A' ? MakeAudio(ts) : MakeVideo(ts, item[0] == 'K'));
  }
}

std::string Describe(RtspSinkerTestPeer& peer) {
  std::string out;
  for (const auto& p : peer.Queued()) {
    const bool audio = p->GetMediaType() == QZMediaPacket::MediaTypeAudio;
    const char kind = audio ? 'A' : (p->IsKeyFrame() ? 'K' : 'P');
    out += (out.empty() ? "" : " ") + std::string(1, kind) + std::to_string(p->TimeStamp());
  }
  return out;
}

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

using QueueOrderTest = SinkerTableTest<OrderCase>;

// A null packet is ignored; the rest pop in timestamp order, each push stamp
// leaving with its entry.
TEST_P(QueueOrderTest, PopsInTimestampOrder) {
  RtspSinker& sinker = MakeSinker(true, true);
  peer_->set_send_thread_running(true);  // keeps the stopped-backlog bound out of this
  sinker.PushPacket(QZ_MediaPacketRefPtr());
  // Tag each packet with its push index in its payload size to see tie order.
  for (size_t i = 0; i < GetParam().pushed.size(); ++i) {
    sinker.PushPacket(MakePacket(QZMediaPacket::MediaTypeAudio, QZ_MEDIA_CODEC_ID_AAC,
                                 Bytes(i + 1, 0xAA), false, GetParam().pushed[i]));
  }
  std::vector<long long> popped;
  int last_size = 0;
  while (QZ_MediaPacketRefPtr p = peer_->PopPacket()) {
    EXPECT_EQ(peer_->StampedEntries(), peer_->Queued().size());
    if (!popped.empty() && p->TimeStamp() == popped.back()) {
      EXPECT_GT(p->Size(), last_size) << "equal timestamps out of push order";
    }
    last_size = p->Size();
    popped.push_back(p->TimeStamp());
  }
  EXPECT_EQ(popped, GetParam().popped);
  EXPECT_EQ(peer_->StampedEntries(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Table, QueueOrderTest, ::testing::ValuesIn(kOrderCases), RowName());

TEST_F(QueueTest, SaveInitPacketKeepsFirstVideoUntilAKeyFrameAndLatestAudio) {
  MakeSinker(true, true);
  auto v1 = MakeVideo(0, false), k3 = MakeVideo(80, true), a2 = MakeAudio(20);
  peer_->SaveInitPacket(v1);
  peer_->SaveInitPacket(MakeVideo(40, false));
  EXPECT_EQ(peer_->init_video_packet().get(), v1.get());
  peer_->SaveInitPacket(k3);
  EXPECT_EQ(peer_->init_video_packet().get(), k3.get());
  peer_->SaveInitPacket(MakeAudio(0));
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

using InitWaitTest = SinkerTableTest<InitWaitCase>;

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

INSTANTIATE_TEST_SUITE_P(Table, InitWaitTest, ::testing::ValuesIn(kInitWaitCases), RowName());

// The sleep count is zero before a failure and saturates (the growing steps
// themselves are checked through the send loop below); sleeping it off drains
// the queue with a 10 ms sleep per step, once and without sleeping when the
// thread is exiting.
TEST_F(QueueTest, BackOffSleepsAndDrains) {
  RtspSinker& sinker = MakeSinker(true, true);
  const std::pair<int, int> counts[] = {{-5, 0}, {0, 0}, {20, 1160}, {21, 1200}, {INT_MAX, 1200}};
  for (const auto& c : counts) {
    EXPECT_EQ(peer_->GetSleepCount(c.first), c.second) << "seed " << c.first;
  }
  Fill(sinker, "A0 A1 A2 A3 A4");
  clock_.TakeSleeps();
  peer_->SleepDropPacket(3);
  EXPECT_EQ(peer_->Queued().size(), 0u);
  EXPECT_EQ(clock_.TakeSleeps(), std::vector<int>({10, 10, 10}));
  Fill(sinker, "A5");
  peer_->set_send_thread_exit(true);
  peer_->SleepDropPacket(1200);
  EXPECT_EQ(peer_->Queued().size(), 0u);
  EXPECT_TRUE(clock_.TakeSleeps().empty());
}

// ---- drop policy -------------------------------------------------------------

struct DropCase {
  const char* name;
  QZ_UINT64 delay;
  const char* queue;
  QZ_UINT64 video_delay;  // newest minus oldest queued video, audio skipped
  const char* remaining;
  bool flag_before, flag_after;  // waiting for a key frame after a drop
};

// Up to 2500 ms nothing is dropped; up to 3500 ms the non-key video in front
// of the first key frame goes, when at least three frames and one key frame
// are queued; above that video goes until a key frame that leaves less than
// min(delay - 1000, 2500) ms to the newest video.
const DropCase kDropCases[] = {
    {"empty", 4000, "", 0, "", false, false},
    {"below_threshold", 2499, "P1 P2 K3 P4", 3, "P1 P2 K3 P4", false, false},
    {"moderate_too_few_frames", 3000, "P1 K2", 1, "P1 K2", false, false},
    {"moderate_no_key_frame", 3000, "P1 P2 P3", 2, "P1 P2 P3", false, false},
    {"moderate", 3000, "P1 A1 P2 K3 P4 A9", 3, "A1 K3 P4 A9", false, false},
    {"moderate_at_3500", 3500, "P1 K2 P3", 2, "K2 P3", false, false},
    {"heavy", 4000, "K1000 P1040 K2000 P2040 K4200 P5000", 4000, "K4200 P5000", false, false},
    {"heavy_drops_everything", 3600, "P0 P40 K100 P140 P3600", 3600, "", false, true},
    {"heavy_keeps_audio", 3501, "A0 P10 A20 K3000", 2990, "A0 A20 K3000", false, false},
    {"heavy_audio_only", 4000, "A0 A20", 0, "A0 A20", false, false},
    {"heavy_stop_at_key_clears_flag", 3600, "P0 K3000 P3600", 3600, "K3000 P3600", true, false},
};

using DropTest = SinkerTableTest<DropCase>;

TEST_P(DropTest, DropPacket) {
  const DropCase& c = GetParam();
  RtspSinker& sinker = MakeSinker(true, true);
  peer_->set_send_thread_running(true);
  peer_->set_is_no_complete_video_packet_drop(c.flag_before);
  Fill(sinker, c.queue);
  EXPECT_EQ(peer_->GetVideoDelayTime(), c.video_delay);
  peer_->DropPacket(c.delay);
  EXPECT_EQ(Describe(*peer_), c.remaining);
  EXPECT_EQ(peer_->is_no_complete_video_packet_drop(), c.flag_after);
  EXPECT_EQ(peer_->StampedEntries(), peer_->Queued().size());
}

INSTANTIATE_TEST_SUITE_P(Table, DropTest, ::testing::ValuesIn(kDropCases), RowName());

// A stopped sinker fed for a long time keeps a few seconds that start at a
// key frame, audio included, instead of growing without limit. Without key
// frames only recent audio stays, and timestamps that never advance are
// bounded by count. A packet queued many times (an encoder that repeats a
// frame) keeps its push stamp until its last entry leaves the queue.
TEST_F(QueueTest, StoppedSinkerBoundsItsBacklog) {
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

  RtspSinker& other = MakeSinker(true, true);
  for (long long t = 0; t < 20000; t += 40) {
    other.PushPacket(MakeVideo(t, false));
    other.PushPacket(MakeAudio(t));
  }
  ASSERT_FALSE(peer_->Queued().empty());
  for (const auto& p : peer_->Queued()) {
    EXPECT_EQ(p->GetMediaType(), QZMediaPacket::MediaTypeAudio);
    EXPECT_GE(p->TimeStamp(), 20000 - 40 - 3000);
  }
  // One packet pushed again and again: its entries are trimmed one by one.
  RtspSinker& repeating = MakeSinker(true, true);
  const QZ_MediaPacketRefPtr repeated = MakeAudio(7);
  for (int i = 0; i < 5000; ++i) {
    repeating.PushPacket(repeated);
  }
  EXPECT_EQ(peer_->Queued().size(), 2048u);
  EXPECT_EQ(peer_->StampedEntries(), 2048u);
}

// ---- the send loop -------------------------------------------------------------

// Without servers every initialisation fails; the back-off grows with each
// failure and Stop still ends a long one promptly.
TEST_F(QueueTest, FailedInitBacksOffWithGrowingStepsAndStopEndsIt) {
  RtspSinker& sinker = MakeSinker(false, true, /*servers=*/{});
  ASSERT_TRUE(sinker.Start());
  const std::string failed = "VartoLogIOS [I] RtspSinker initFailedCount=";
  long long ts = 0;
  ASSERT_TRUE(WaitFor([&] {
    sinker.PushPacket(MakeVideo(ts += 40, true));
    return !log_.Matching(failed + "4,").empty();
  }));
  const auto before = std::chrono::steady_clock::now();
  sinker.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
  const auto failures = log_.Matching(failed);
  ASSERT_GE(failures.size(), 3u);
  EXPECT_EQ(failures[0], failed + "1, sleepCount=20\n");
  EXPECT_EQ(failures[1], failed + "2, sleepCount=80\n");
  EXPECT_EQ(failures[2], failed + "3, sleepCount=140\n");
}

// A packet older than the time origin is reported and not sent. Without
// assertions a packet of neither media type is dropped as well and never
// reaches a send path.
TEST_F(QueueTest, PacketsTheLoopCannotSendAreDropped) {
  RtspSinker& sinker = MakeSinker(false, true, {Handle(0x1000)});
  sinker.PushPacket(MakeVideo(1000, true));
#ifdef NDEBUG
  sinker.PushPacket(MakePacket(QZMediaPacket::MediaTypeUnKnown, QZ_MEDIA_CODEC_ID_H264,
                               AnnexB({kH264Slice}), false, 1020));
#endif
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 1; }));
  sinker.PushPacket(MakeVideo(900, false));
  sinker.PushPacket(MakeVideo(1040, false));
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 2; }));
  sinker.Stop();
  EXPECT_EQ(low_->video().size(), 2u);
  EXPECT_EQ(low_->video()[1].record->time_stamp_, 40u);
  EXPECT_EQ(log_.Matching("VartoLogIOS [E] RtspSinker packet->TimeStamp() < "
                          "send_first_frame_timestamp_,timestamp:900,")
                .size(),
            1u);
}

// The loop sends K0, then finds 3600 ms of video queued without a usable key
// frame and drops it all; arriving non-key video is then discarded until the
// next key frame, while audio keeps flowing.
TEST_F(QueueTest, AfterAHeavyDropNonKeyVideoWaitsForAKeyFrame) {
  RtspSinker& sinker = MakeSinker(true, true, {Handle(0x1000)});
  // Queue the backlog as if a thread were running, so that the stopped
  // sinker's own bound leaves it alone.
  peer_->set_send_thread_running(true);
  Fill(sinker, "A0 K0 P40 K100 P140 P3640");
  peer_->set_send_thread_running(false);
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(WaitFor([&] {
    return !log_.Matching("VartoLogIOS [I] RtspSinker drop count=4, drop key frame count=1")
                .empty();
  }));
  Fill(sinker, "P3680 A3700 K3720 P3760");
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 3 && low_->audio().size() == 1; }));
  sinker.Stop();
  std::vector<QZ_UINT64> video_times;
  for (const auto& v : low_->video()) {
    video_times.push_back(v.record->time_stamp_);
  }
  EXPECT_EQ(video_times, std::vector<QZ_UINT64>({0, 3720, 3760}));
  EXPECT_EQ(low_->audio()[0].record->time_stamp_, 3700u);
}

}  // namespace
}  // namespace qz_test
