// Encoder threads pushing while the controlling thread starts, stops and
// destroys sinkers. Run under ThreadSanitizer and AddressSanitizer in CI.
#include <atomic>
#include <thread>
#include <vector>

#include "tests/publisher/sinker_fixture.h"

namespace qz_test {
namespace {

class ConcurrencyTest : public ::testing::Test {
 protected:
  void SetUp() override { server_ = FakeRtspServer::Create(Handle(0x5000)); }
  void TearDown() override { server_->Unregister(); }

  LogCapture log_;  // keeps the test output readable
  qz_top_common::EventMgr events_;
  std::shared_ptr<FakeRtspServer> server_;
};

void Encoder(RtspSinker& sinker,
             std::atomic<bool>& stop,
             bool video,
             std::atomic<long long>& clock) {
  int frame = 0;
  while (!stop) {
    const long long ts = clock.fetch_add(1);
    if (video) {
      sinker.PushPacket(MakeVideo(ts, frame++ % 30 == 0));
    } else {
      sinker.PushPacket(MakeAudio(ts));
    }
    std::this_thread::yield();
  }
}

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
      threads.emplace_back(Encoder, std::ref(*sinker), std::ref(stop), video, std::ref(clock));
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
      auto item = std::make_shared<qz_common::PublisherUserData>();
      item->SetUTF8String("cycle");
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
