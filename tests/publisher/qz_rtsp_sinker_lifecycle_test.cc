// Start, Stop, restart and destruction of the sinker and its send thread,
// also while encoder threads push: run under ThreadSanitizer and
// AddressSanitizer in CI.
#include <atomic>
#include <chrono>
#include <thread>

#include "tests/publisher/sinker_fixture.h"

namespace qz_test {
namespace {

using LifecycleTest = SinkerTest;

// Stop before the first Start does nothing, and a second Start or Stop is a
// no-op. Packets pushed while stopped stay queued and are sent by the next
// run. Each session announces its URLs afresh, also one the server sets only
// after the session's first packets went out. Destroying a running sinker
// stops its thread and withdraws its pipe, once.
TEST_F(LifecycleTest, StartStopStartAndDestroy) {
  low_->set_url_on_accept("rtsp://127.0.0.1:8554/live");
  RtspSinker& sinker = MakeSinker(false, true, {Handle(0x1000)});
  log_.Clear();
  sinker.Stop();
  EXPECT_TRUE(log_.lines().empty());
  sinker.PushPacket(MakeVideo(0, true));
  sinker.PushPacket(MakeVideo(40, false));
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(sinker.Start());
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() == 2; }));
  sinker.Stop();
  sinker.Stop();
  EXPECT_EQ(log_.Matching("VartoLogIOS [I] RtspSinker::Process++").size(), 1u);
  EXPECT_EQ(log_.Matching("VartoLogIOS [I] rtsp sinker stop thread ret=0").size(), 1u);
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
  log_.Clear();
  sinker_.reset();
  EXPECT_EQ(log_.lines(),
            std::vector<std::string>({"VartoLogIOS [I] rtsp sinker stop thread ret=0\n"}));
  EXPECT_EQ(UrlEvents(), Urls({{0x1000, "rtsp://late/live"}}));
  // The second session's time origin is its own first packet.
  EXPECT_EQ(low_->video()[2].record->time_stamp_, 0u);
  EXPECT_EQ(low_->video()[3].record->time_stamp_, 40u);
  EXPECT_EQ(low_->withdrawn().size(), 2u);
  EXPECT_TRUE(low_->pipes().empty());
}

TEST_F(LifecycleTest, RecordsCarryThePushTimeOfTheirFrame) {
  const auto now_us = [] {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  };
  RtspSinker& sinker = MakeSinker(true, true, {Handle(0x1000)});
  ASSERT_TRUE(sinker.Start());
  long long times[3];
  for (int i = 0; i < 3; ++i) {
    times[i] = now_us();
    sinker.PushPacket(MakeVideo(i * 40, i < 2));
    sinker.PushPacket(MakeAudio(i * 40, QZ_MEDIA_CODEC_ID_PCMA));
    if (i == 0) {  // wait until the session is open
      ASSERT_TRUE(WaitFor([&] { return !low_->audio().empty(); }));
    }
  }
  const long long after = now_us();
  ASSERT_TRUE(WaitFor([&] { return low_->video().size() >= 2 && low_->audio().size() >= 3; }));
  sinker.Stop();
  const auto video = low_->video();
  const auto audio = low_->audio();
  const size_t v = video.size(), a = audio.size();
  for (long long t : {video[v - 2].record->pushed_us_, audio[a - 2].record->pushed_us_}) {
    EXPECT_GE(t, times[1]);
    EXPECT_LE(t, times[2]);
  }
  for (long long t : {video[v - 1].record->pushed_us_, audio[a - 1].record->pushed_us_}) {
    EXPECT_GE(t, times[2]);
    EXPECT_LE(t, after);
  }
}

class ConcurrencyTest : public ::testing::Test {
 protected:
  void SetUp() override { server_ = FakeRtspServer::Create(Handle(0x5000)); }
  void TearDown() override { server_->Unregister(); }

  LogCapture log_;  // keeps the test output readable
  qz_top_common::EventMgr events_;
  std::shared_ptr<FakeRtspServer> server_;
};

// Encoders push and the server reads the pipes while the controlling thread
// starts and stops the sinker, posts user data, and at last destroys it while
// it is still running.
TEST_F(ConcurrencyTest, PushWhileStartStopAndDestroy) {
  std::atomic<long long> clock{0};
  for (int round = 0; round < 6; ++round) {
    auto sinker = std::make_unique<RtspSinker>(&events_, "live", true, true, 4);
    sinker->SetRtspServers({Handle(0x5000)});
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (bool video : {true, false, false}) {
      threads.emplace_back([&sinker, &stop, &clock, video] {
        for (int frame = 0; !stop; ++frame) {
          const long long ts = clock.fetch_add(1);
          sinker->PushPacket(video ? MakeVideo(ts, frame % 30 == 0) : MakeAudio(ts));
          std::this_thread::yield();
        }
      });
    }
    threads.emplace_back([this, &stop] {
      while (!stop) {
        for (auto& piple : server_->pipes()) {
          std::vector<unsigned char> vps, sps, pps;
          piple->GetVpsSpsPps(vps, sps, pps);
          (void)piple->IsHasAVConfig();
        }
        std::this_thread::yield();
      }
    });
    for (int cycle = 0; cycle < 4; ++cycle) {
      EXPECT_TRUE(sinker->Start());
      auto item = TextItem("cycle");
      sinker->PostUserData(item);
      std::this_thread::sleep_for(std::chrono::milliseconds(15));
      if (cycle < 3) {
        sinker->Stop();
      }
    }
    // Stop pushing before destruction: an encoder must not outlive its sink.
    stop = true;
    for (auto& t : threads) {
      t.join();
    }
    sinker.reset();
    EXPECT_TRUE(server_->pipes().empty());  // every session withdrew its pipe
  }
  EXPECT_GT(server_->video().size() + server_->audio().size(), 0u);
}

// A publisher hands every packet to each of its sinks on the encoder thread
// while their send threads run: a sink must only read the packet it is given.
// Under ThreadSanitizer a write into the shared packet shows up here.
TEST_F(ConcurrencyTest, TwoSinkersShareEveryPacket) {
  auto server_b = FakeRtspServer::Create(Handle(0x6000));
  RtspSinker a(&events_, "live", true, true, 4);
  RtspSinker b(&events_, "live", true, true, 4);
  a.SetRtspServers({Handle(0x5000)});
  b.SetRtspServers({Handle(0x6000)});
  ASSERT_TRUE(a.Start());
  ASSERT_TRUE(b.Start());
  // The encoder thread hands each frame to one sink, lets that sink's send
  // thread build its records (a pause longer than its 10 ms idle poll), then
  // hands the same packets to the other sink: a sink that wrote into the
  // packet on push would write memory the other sink's send thread has just
  // read, with nothing ordering the two, and ThreadSanitizer reports it. The
  // sinks swap roles every frame. 10 ms apart in media time, all of it stays
  // under the video drop threshold, so each sink must post every frame.
  constexpr int kFrames = 60;
  for (int i = 0; i < kFrames; ++i) {
    const QZ_MediaPacketRefPtr frame[] = {MakeVideo(i * 10, i % 25 == 0), MakeAudio(i * 10)};
    for (RtspSinker* sink : {i % 2 ? &b : &a, i % 2 ? &a : &b}) {
      for (const QZ_MediaPacketRefPtr& packet : frame) {
        sink->PushPacket(packet);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(15));
    }
  }
  // The first video packet only describes the stream and the first one sent
  // must be a key frame: video is posted from the server_b key frame (25) on.
  const auto all_posted = [](FakeRtspServer& s) {
    return s.video().size() == kFrames - 25 && s.audio().size() == kFrames;
  };
  ASSERT_TRUE(WaitFor([&] { return all_posted(*server_) && all_posted(*server_b); }))
      << server_->video().size() << "/" << server_b->video().size() << " video records";
  a.Stop();
  b.Stop();
  const auto va = server_->video(), vb = server_b->video();
  for (size_t i = 0; i < va.size(); ++i) {
    EXPECT_EQ(va[i].record->time_stamp_, vb[i].record->time_stamp_);
    EXPECT_EQ(va[i].record->is_key_frame_, vb[i].record->is_key_frame_);
    EXPECT_EQ(NalUnits(*va[i].record), NalUnits(*vb[i].record)) << "record " << i;
    EXPECT_GT(va[i].record->pushed_us_, 0) << "record " << i;
  }
  const auto aa = server_->audio(), ab = server_b->audio();
  for (size_t i = 0; i < aa.size(); ++i) {
    EXPECT_EQ(aa[i].record->time_stamp_, ab[i].record->time_stamp_);
    EXPECT_GT(ab[i].record->pushed_us_, 0) << "record " << i;
  }
  server_b->Unregister();
}

}  // namespace
}  // namespace qz_test
