#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"

#include <atomic>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/fakes/fake_rtsp_server.h"

namespace {

using qz_rtsp_internal_server::QZRtspPacketPiple;
using qz_rtsp_internal_server::QZRtspServerMgr;
using qz_test::FakeRtspServer;
using qz_test::Handle;

// A pipe is held by the server that took it and by nobody else: one offered
// to no server, to one that refuses it or to one that has left is refused,
// and withdrawing it there is harmless.
TEST(QZRtspServerMgrTest, PipeIsHeldOnlyByTheServerThatTookIt) {
  auto mgr = QZRtspServerMgr::Instance();
  auto taking = FakeRtspServer::Create(Handle(0xA100));
  auto refusing = FakeRtspServer::Create(Handle(0xA200), /*accept=*/false);
  FakeRtspServer::Create(Handle(0xA300))->Unregister();
  for (const uintptr_t handle : {0xA100, 0xDEAD0, 0xA200, 0xA300}) {
    auto piple = std::make_shared<QZRtspPacketPiple>("s");
    const bool taken = handle == 0xA100;
    EXPECT_EQ(mgr->PostPiple(Handle(handle), piple), taken) << handle;
    EXPECT_EQ(piple.use_count(), taken ? 2 : 1) << handle;
    mgr->RemovePiple(Handle(handle), piple);
    EXPECT_EQ(piple.use_count(), taken ? 2 : 1) << handle;  // the fake keeps what it withdrew
  }
  EXPECT_TRUE(taking->pipes().empty());
  EXPECT_EQ(taking->withdrawn().size(), 1u);
  EXPECT_EQ(refusing->offered(), 1);
  taking->Unregister();
  refusing->Unregister();
}

TEST(QZRtspServerMgrTest, RegistrationRules) {
  auto mgr = QZRtspServerMgr::Instance();
  auto server = FakeRtspServer::Create(Handle(0xA300));
  EXPECT_TRUE(mgr->IsRegistered(Handle(0xA300)));
  EXPECT_FALSE(mgr->RegisterServer(Handle(0xA300), server));  // taken
  EXPECT_FALSE(mgr->RegisterServer(nullptr, server));
  EXPECT_FALSE(mgr->RegisterServer(Handle(0xA301), nullptr));
  server->Unregister();
  EXPECT_FALSE(mgr->IsRegistered(Handle(0xA300)));
}

// Servers come and go while publishers post: no race, and a pipe is only
// ever taken by a registered server.
TEST(QZRtspServerMgrTest, ConcurrentRegisterAndPost) {
  std::atomic<bool> stop{false};
  std::thread churn([&stop] {
    while (!stop) {
      auto server = FakeRtspServer::Create(Handle(0xA400));
      server->Unregister();
    }
  });
  for (int i = 0; i < 3000; ++i) {
    auto piple = std::make_shared<QZRtspPacketPiple>("s");
    if (QZRtspServerMgr::Instance()->PostPiple(Handle(0xA400), piple)) {
      QZRtspServerMgr::Instance()->RemovePiple(Handle(0xA400), piple);
    }
  }
  stop = true;
  churn.join();
  EXPECT_FALSE(QZRtspServerMgr::Instance()->IsRegistered(Handle(0xA400)));
}

}  // namespace
