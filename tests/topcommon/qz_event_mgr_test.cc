#include "topcommon/qz_event_mgr.h"

#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "topcommon/qz_event_define.h"

namespace {

using qz_top_common::EventMgr;
using qz_top_common::InnerEvent;

TEST(EventMgrTest, EventsComeOutInOrderWithTheirParameters) {
  EventMgr mgr;
  ASSERT_TRUE(mgr.Init());
  {
    std::string url = "rtsp://a/b";
    mgr.AddEvent(EVENT_KESTRAVOX_ERC_PUBLISHER_RTSP_URL, 0x1234, 0, url, "", nullptr);
    url.assign("overwritten");  // AddEvent must have copied it
  }
  mgr.AddEvent(EVENT_KESTRAVOX_ERC_PUBLISHER_STOP);
  InnerEvent* first = mgr.PopEvent();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->id_, static_cast<QZ_UINT32>(EVENT_KESTRAVOX_ERC_PUBLISHER_RTSP_URL));
  EXPECT_EQ(first->param1_, 0x1234u);
  EXPECT_EQ(first->param3_, "rtsp://a/b");
  mgr.DeleteEvent(first);
  EXPECT_EQ(first, nullptr);
  InnerEvent* second = mgr.PopEvent();
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->id_, static_cast<QZ_UINT32>(EVENT_KESTRAVOX_ERC_PUBLISHER_STOP));
  mgr.DeleteEvent(second);
  EXPECT_EQ(mgr.PopEvent(), nullptr);
}

// An application that never drains its events does not make us grow forever.
TEST(EventMgrTest, PendingEventsAreBounded) {
  EventMgr mgr;
  for (int i = 0; i < 5000; ++i) {
    mgr.AddEvent(static_cast<QZ_UINT32>(i));
  }
  int count = 0;
  QZ_UINT32 first_id = 0;
  while (InnerEvent* e = mgr.PopEvent()) {
    if (count == 0) {
      first_id = e->id_;
    }
    ++count;
    mgr.DeleteEvent(e);
  }
  EXPECT_EQ(count, 1024);
  EXPECT_EQ(first_id, 5000u - 1024u);  // the newest are kept
}

TEST(EventMgrTest, ConcurrentProducersAndConsumer) {
  EventMgr mgr;
  std::vector<std::thread> producers;
  for (int t = 0; t < 3; ++t) {
    producers.emplace_back([&mgr] {
      for (int i = 0; i < 300; ++i) {
        mgr.AddEvent(1, 2, 3);
      }
    });
  }
  int taken = 0;
  while (taken < 900) {
    if (InnerEvent* e = mgr.PopEvent()) {
      ++taken;
      mgr.DeleteEvent(e);
    }
  }
  for (auto& t : producers) {
    t.join();
  }
  EXPECT_EQ(mgr.PopEvent(), nullptr);
}

}  // namespace
