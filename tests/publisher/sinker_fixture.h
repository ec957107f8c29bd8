// A sinker wired to fake RTSP servers, with its log captured and a fake
// clock installed.
#ifndef TESTS_PUBLISHER_SINKER_FIXTURE_H_
#define TESTS_PUBLISHER_SINKER_FIXTURE_H_

#include <memory>
#include <vector>

#include "gtest/gtest.h"
#include "publisher/qz_rtsp_sinker.h"
#include "tests/fakes/fake_rtsp_server.h"
#include "tests/fakes/test_support.h"
#include "tests/publisher/rtsp_sinker_test_peer.h"
#include "topcommon/qz_event_mgr.h"

namespace qz_test {

using qz_publisher::RtspSinker;
using qz_publisher::RtspSinkerTestPeer;

inline void* Handle(uintptr_t v) {
  return reinterpret_cast<void*>(v);
}

class SinkerTest : public ::testing::Test {
 protected:
  // Two servers registered under 0x1000 and 0x2000.
  void SetUp() override {
    low_ = FakeRtspServer::Create(Handle(0x1000));
    high_ = FakeRtspServer::Create(Handle(0x2000));
  }
  void TearDown() override {
    sinker_.reset();
    low_->Unregister();
    high_->Unregister();
  }

  RtspSinker& MakeSinker(bool audio,
                         bool video,
                         std::vector<void*> servers = {Handle(0x2000), Handle(0x1000)},
                         int user_data_capacity = 8) {
    sinker_.reset(new RtspSinker(&events_, "live", audio, video, user_data_capacity));
    sinker_->SetRtspServers(servers);
    peer_.reset(new RtspSinkerTestPeer(*sinker_));
    return *sinker_;
  }

  // Creates the pipes from the given initialisation packets, as the send
  // loop would, with the time origin at `origin`.
  void OpenSession(QZ_MediaPacketRefPtr audio, QZ_MediaPacketRefPtr video, long long origin = 0) {
    if (audio) {
      peer_->SaveInitPacket(audio);
    }
    if (video) {
      peer_->SaveInitPacket(video);
    }
    ASSERT_TRUE(peer_->InitRtsp());
    peer_->set_time_origin(static_cast<QZ_UINT64>(origin));
  }

  FakeTimeSource clock_;
  LogCapture log_;
  qz_top_common::EventMgr events_;
  std::shared_ptr<FakeRtspServer> low_;
  std::shared_ptr<FakeRtspServer> high_;
  std::unique_ptr<RtspSinker> sinker_;
  std::unique_ptr<RtspSinkerTestPeer> peer_;
};

}  // namespace qz_test

#endif  // TESTS_PUBLISHER_SINKER_FIXTURE_H_
