// A sinker wired to fake RTSP servers, with its log captured and a fake
// clock installed.
#ifndef TESTS_PUBLISHER_SINKER_FIXTURE_H_
#define TESTS_PUBLISHER_SINKER_FIXTURE_H_

#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "publisher/qz_rtsp_sinker.h"
#include "tests/fakes/fake_rtsp_server.h"
#include "tests/fakes/test_support.h"
#include "tests/publisher/rtsp_sinker_test_peer.h"
#include "topcommon/qz_event_define.h"
#include "topcommon/qz_event_mgr.h"

namespace qz_test {

using qz_publisher::RtspSinker;
using qz_publisher::RtspSinkerTestPeer;
using Bytes = std::vector<QZ_BYTE>;

// `p` with the given parameter sets as extra data; empty ones are left out.
inline QZ_MediaPacketRefPtr WithSets(QZ_MediaPacketRefPtr p,
                                     const Bytes& vps,
                                     const Bytes& sps,
                                     const Bytes& pps) {
  const std::pair<const char*, const Bytes*> sets[] = {{"vps", &vps}, {"sps", &sps}, {"pps", &pps}};
  for (const auto& set : sets) {
    if (!set.second->empty()) {
      p->SetExtraData(set.first, *set.second);
    }
  }
  return p;
}

// An audio packet with `config` as its AudioSpecificConfig (none when empty)
// and an audio info when `rate` or `channels` is positive.
inline QZ_MediaPacketRefPtr Audio(long long ts,
                                  const Bytes& config = {},
                                  int rate = 0,
                                  int channels = 0,
                                  QZ_MEDIA_CODEC_ID codec = QZ_MEDIA_CODEC_ID_AAC) {
  QZ_MediaPacketRefPtr p = MakeAudio(ts, codec);
  if (!config.empty()) {
    p->SetExtraData("AudioSpecificConfig", config);
  }
  if (rate > 0 || channels > 0) {
    QZMediaPacket::AudioInfo info(rate, channels);
    p->SetAudioInfo(&info);
  }
  return p;
}

// A user data item holding `text`.
inline std::shared_ptr<qz_common::PublisherUserData> TextItem(const std::string& text) {
  auto item = std::make_shared<qz_common::PublisherUserData>();
  item->SetUTF8String(text);
  return item;
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
                         std::vector<void*> servers = {Handle(0x2000), Handle(0x1000)}) {
    sinker_.reset(new RtspSinker(&events_, "live", audio, video, 8));
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

  // The events fired since the last call, as (server handle, URL); every one
  // must be a URL event.
  using Urls = std::vector<std::pair<QZ_UINT64, std::string>>;
  Urls UrlEvents() {
    Urls out;
    while (qz_top_common::InnerEvent* e = events_.PopEvent()) {
      EXPECT_EQ(e->id_, static_cast<QZ_UINT32>(EVENT_KESTRAVOX_ERC_PUBLISHER_RTSP_URL));
      EXPECT_EQ(e->param2_, 0u);
      EXPECT_EQ(e->param4_, "");
      EXPECT_EQ(e->param5_, nullptr);
      out.emplace_back(e->param1_, e->param3_);
      events_.DeleteEvent(e);
    }
    return out;
  }

  FakeTimeSource clock_;
  LogCapture log_;
  qz_top_common::EventMgr events_;
  std::shared_ptr<FakeRtspServer> low_;
  std::shared_ptr<FakeRtspServer> high_;
  std::unique_ptr<RtspSinker> sinker_;
  std::unique_ptr<RtspSinkerTestPeer> peer_;
};

// A table-driven sinker test: one instance per row of `Row`.
template <typename Row>
class SinkerTableTest : public SinkerTest, public ::testing::WithParamInterface<Row> {};

}  // namespace qz_test

#endif  // TESTS_PUBLISHER_SINKER_FIXTURE_H_
