// Arbitrary access units through the H.264 and H.265 send paths of a sinker
// with a live session: nothing may crash or read outside the packet.
#include <cstdint>
#include <memory>
#include <vector>

#include "tests/fakes/fake_rtsp_server.h"
#include "tests/fakes/test_support.h"
#include "tests/publisher/rtsp_sinker_test_peer.h"
#include "topcommon/qz_event_mgr.h"
#include "utility/qz_log.h"

namespace {

// A sinker and a server made afresh for every input and gone when it ends:
// no state leaks from one input into the next (a crash reproduces from its
// input alone), and libFuzzer, which runs a full leak scan after any input
// that allocated more than it freed, has nothing to scan for.
struct Session {
  Session() : sinker(&events, "fuzz", false, true, 4), peer(sinker) {
    server = qz_test::FakeRtspServer::Create(reinterpret_cast<void*>(0xF00));
    sinker.SetRtspServers({reinterpret_cast<void*>(0xF00)});
  }
  ~Session() { server->Unregister(); }
  qz_top_common::EventMgr events;
  qz_publisher::RtspSinker sinker;
  qz_publisher::RtspSinkerTestPeer peer;
  std::shared_ptr<qz_test::FakeRtspServer> server;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 64 * 1024) {
    return 0;
  }
  static const bool quiet = [] {
    qz_utility::SetLogSinkForTesting([](const std::string&) {});
    return true;
  }();
  (void)quiet;
  auto session = std::make_unique<Session>();
  const bool h265 = data[0] & 1;
  const bool key = data[0] & 2;
  const QZ_MEDIA_CODEC_ID codec = h265 ? QZ_MEDIA_CODEC_ID_H265 : QZ_MEDIA_CODEC_ID_H264;
  session->peer.SaveInitPacket(qz_test::MakeVideo(0, true, codec));
  session->peer.InitRtsp();
  session->peer.set_time_origin(0);
  std::vector<QZ_BYTE> au(data + 1, data + size);
  auto packet =
      qz_test::MakePacket(qz_publisher::QZMediaPacket::MediaTypeVideo, codec, au, key, 40);
  if (data[0] & 4) {
    packet->SetExtraData("sps", std::vector<QZ_BYTE>(au.begin(), au.begin() + au.size() / 2));
    packet->SetExtraData("pps", std::vector<QZ_BYTE>(au.begin() + au.size() / 2, au.end()));
    packet->SetExtraData("vps", au);
  }
  auto user_data = std::make_shared<qz_common::PublisherUserData>();
  user_data->SetData(au.data(), static_cast<QZ_INT32>(au.size()));
  session->sinker.PostUserData(user_data);
  session->peer.SendVideoPacket(qz_test::MakeVideo(0, true, codec));
  session->peer.SendVideoPacket(packet);
  session->peer.UnInitRtsp();
  return 0;
}
