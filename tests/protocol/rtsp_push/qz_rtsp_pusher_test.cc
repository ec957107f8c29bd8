// The pusher as the sinker meets it, against a relay played on loopback by
// the test: the registry hands it one pipe, it records to the relay (Digest
// included), starts the relay at a key frame, comes back after the relay
// drops it, and says TEARDOWN when stopped.
#include "protocol/rtsp_push/qz_rtsp_pusher.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"
#include "tests/fakes/fake_rtsp_core.h"
#include "tests/fakes/test_support.h"

namespace qz_rtsp_internal_server {
namespace {

using qz_test::PacketData;
using qz_test::WaitFor;

// A relay that takes ANNOUNCE/RECORD on 127.0.0.1, asks for Digest
// credentials, and notes per connection what it was sent: the methods in
// order and the NAL unit type that starts its video.
class FakeRelay {
 public:
  struct Connection {
    std::vector<std::string> methods;
    int first_video_nal = -1;  // -1: no video yet
    int video_packets = 0;
    bool recording = false;
    std::string sdp;  // what ANNOUNCE described
  };

  FakeRelay() {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(addr);
    EXPECT_EQ(bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), size), 0);
    EXPECT_EQ(listen(listen_fd_, 4), 0);
    getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &size);
    port_ = ntohs(addr.sin_port);
    // A small window, so that a stalled relay soon holds the pusher's writes up.
    const int rcvbuf = 4096;
    setsockopt(listen_fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    thread_ = std::thread([this] { Run(); });
  }
  ~FakeRelay() {
    stop_ = true;
    thread_.join();
    close(listen_fd_);
  }

  int port() const { return port_; }
  std::vector<Connection> connections() {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_;
  }
  // Closes the connection being served (the relay goes away).
  void DropConnection() { drop_ = true; }
  // Reads nothing while stalled; what waits unread is in pending().
  void Stall(bool stalled) { stalled_ = stalled; }
  int pending() const { return pending_; }

 private:
  // Whether `fd` can be read within 50 ms (so that stop_ is seen soon).
  static bool Readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 50) == 1;
  }

  void Run() {
    while (!stop_) {
      if (!Readable(listen_fd_)) {
        continue;
      }
      const int fd = accept(listen_fd_, nullptr, nullptr);
      Serve(fd);
      close(fd);
    }
  }

  void Serve(int fd) {
    RtspRequestParser parser;
    RtspAuthState state;
    drop_ = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      connections_.emplace_back();
    }
    char buffer[65536];
    while (!stop_ && !drop_) {
      if (stalled_) {
        int pending = 0;
        ioctl(fd, FIONREAD, &pending);
        pending_ = pending;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        continue;
      }
      if (!Readable(fd)) {
        continue;
      }
      const ssize_t n = read(fd, buffer, sizeof(buffer));
      if (n <= 0) {
        return;
      }
      parser.Feed(buffer, static_cast<size_t>(n));
      for (RtspParseResult r; (r = parser.Next()) != RtspParseResult::kNeedMore;) {
        if (r == RtspParseResult::kBadRequest) {
          ADD_FAILURE() << "the relay got a malformed request: " << parser.error();
          return;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        Connection& c = connections_.back();
        if (r == RtspParseResult::kInterleaved) {
          const std::string& rtp = parser.payload();
          if (parser.channel() == 0 && rtp.size() > 13) {
            const int type = rtp[12] & 0x1f;  // FU-A (28): the fragment's type
            if (c.first_video_nal < 0) {
              c.first_video_nal = type == 28 ? rtp[13] & 0x1f : type;
            }
            // At the 10th packet, a receiver report on the stream's SSRC:
            // 25 % lost, 7 + the connection's index in all, 10 ms jitter.
            if (++c.video_packets == 10) {
              const uint32_t ssrc = static_cast<uint32_t>(
                  (static_cast<uint8_t>(rtp[8]) << 24) | (static_cast<uint8_t>(rtp[9]) << 16) |
                  (static_cast<uint8_t>(rtp[10]) << 8) | static_cast<uint8_t>(rtp[11]));
              const std::vector<uint8_t> rr = qz_test::ReceiverReport(
                  ssrc, 64, static_cast<uint32_t>(6 + connections_.size()), 900);
              std::string frame = {'$', 1, 0, static_cast<char>(rr.size())};
              frame.append(rr.begin(), rr.end());
              if (write(fd, frame.data(), frame.size()) != static_cast<ssize_t>(frame.size())) {
                return;
              }
            }
          }
          continue;
        }
        const RtspRequest& request = parser.request();
        c.methods.push_back(request.method);
        if (request.method == "ANNOUNCE") {
          c.sdp = request.body;
        }
        const std::string reply = Answer(request, state);
        c.recording |= request.method == "RECORD";
        if (write(fd, reply.data(), reply.size()) != static_cast<ssize_t>(reply.size())) {
          return;
        }
      }
    }
  }

  std::string Answer(const RtspRequest& request, RtspAuthState& state) {
    const std::string cseq = request.Header("CSeq") ? *request.Header("CSeq") : "";
    std::vector<std::pair<std::string, std::string>> headers;
    if (request.method != "OPTIONS" &&
        auth_.Check(request, state, 1000) != RtspAuthenticator::Verdict::kOk) {
      for (const std::string& challenge : auth_.Challenges(state, 1000, false)) {
        headers.emplace_back("WWW-Authenticate", challenge);
      }
      return WriteRtspResponse(401, cseq, headers);
    }
    if (request.method == "OPTIONS") {
      headers.emplace_back("Public", "OPTIONS, ANNOUNCE, SETUP, RECORD, TEARDOWN");
    } else if (request.method == "SETUP") {
      headers.emplace_back("Session", "relay1;timeout=60");
      headers.emplace_back("Transport", *request.Header("Transport"));
    } else if (request.method == "RECORD") {
      headers.emplace_back("Session", "relay1");
    }
    return WriteRtspResponse(200, cseq, headers);
  }

  RtspAuthenticator auth_{"user", "pw", "relay", /*allow_basic=*/false};
  int listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<bool> drop_{false};
  std::atomic<bool> stalled_{false};
  std::atomic<int> pending_{0};
  std::mutex mutex_;  // guards connections_
  std::vector<Connection> connections_;
  std::thread thread_;
};

std::shared_ptr<QZRtspPacketPiple> H264Pipe(const std::string& name) {
  auto piple = std::make_shared<QZRtspPacketPiple>(name);
  piple->IsHasVideo(true);
  piple->SetVideoCodecID(QZ_MEDIA_CODEC_ID_H264);
  piple->SetSpsPps(qz_test::kH264Sps.data(), static_cast<QZ_UINT32>(qz_test::kH264Sps.size()),
                   qz_test::kH264Pps.data(), static_cast<QZ_UINT32>(qz_test::kH264Pps.size()));
  return piple;
}

// Posts 25 frames a second of `codec` (H.264 or H.265) into `piple`, a key
// frame every 10, until stopped.
class FramePoster {
 public:
  FramePoster(std::shared_ptr<QZRtspPacketPiple> piple, QZ_MEDIA_CODEC_ID codec)
      : thread_([this, piple, codec] {
          const bool h265 = codec == QZ_MEDIA_CODEC_ID_H265;
          for (int i = 0; !stop_; ++i) {
            auto record = std::make_shared<QZRtspVideoPacket>();
            record->codec_id_ = codec;
            record->is_key_frame_ = i % 10 == 0;
            record->time_stamp_ = static_cast<QZ_UINT64>(i) * 40;
            record->nal_units_.push_back(PacketData(
                record->is_key_frame_ ? (h265 ? qz_test::kH265Idr : qz_test::kH264Idr)
                                      : (h265 ? qz_test::kH265Trail : qz_test::kH264Slice)));
            piple->PostVideoPacket(record);
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
          }
        }) {}
  ~FramePoster() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST(PusherTest, RecordsComesBackAndTearsDown) {
  FakeRelay relay;
  std::atomic<int> key_requests{0};
  QZRtspPushOptions options;
  options.url = "rtsp://user:pw@127.0.0.1:" + std::to_string(relay.port()) + "/phone";
  options.on_key_frame_request = [&key_requests](const std::string&) { ++key_requests; };
  QZRtspPusher pusher(options);
  QZRtspServerMgr* registry = QZRtspServerMgr::Instance();
  std::shared_ptr<QZRtspPacketPiple> piple = H264Pipe("cam");
  std::shared_ptr<QZRtspPacketPiple> second = H264Pipe("other");
  std::string why;
  EXPECT_FALSE(registry->PostPiple(pusher.Handle(), piple, &why));
  EXPECT_NE(why.find("not running"), std::string::npos) << why;
  ASSERT_TRUE(pusher.Start());
  ASSERT_TRUE(registry->PostPiple(pusher.Handle(), piple, &why)) << why;
  EXPECT_FALSE(registry->PostPiple(pusher.Handle(), second, &why));
  EXPECT_NE(why.find("one stream"), std::string::npos) << why;
  EXPECT_EQ(piple->GetRtspURL(), "rtsp://127.0.0.1:" + std::to_string(relay.port()) + "/phone");

  auto poster = std::make_unique<FramePoster>(piple, QZ_MEDIA_CODEC_ID_H264);
  const auto recorded = [&relay](size_t connection) {
    const auto all = relay.connections();
    return all.size() > connection && all[connection].recording &&
           all[connection].video_packets >= 10;
  };
  ASSERT_TRUE(WaitFor([&] { return recorded(0); })) << pusher.GetStats().last_error;
  ASSERT_TRUE(WaitFor([&] { return pusher.GetStats().cumulative_lost == 7; }))
      << "the relay's report: " << pusher.GetStats().receiver_reports << " taken";
  relay.DropConnection();
  ASSERT_TRUE(WaitFor([&] { return recorded(1); })) << pusher.GetStats().last_error;

  unsigned long long received = 0;
  for (const FakeRelay::Connection& c : relay.connections()) {
    // ANNOUNCE was asked for credentials, answered, then the tracks set up.
    const std::vector<std::string> want = {"OPTIONS", "ANNOUNCE", "ANNOUNCE", "SETUP", "RECORD"};
    EXPECT_EQ(std::vector<std::string>(c.methods.begin(), c.methods.begin() + 5), want);
    EXPECT_EQ(c.first_video_nal, 5) << "each recording starts at an IDR picture";
    received += static_cast<unsigned long long>(c.video_packets);
  }
  QZRtspPushStats stats = pusher.GetStats();
  EXPECT_EQ(stats.state, "recording");
  EXPECT_EQ(stats.recordings, 2u);
  EXPECT_EQ(stats.reconnects, 1u);
  EXPECT_NE(stats.last_error.find("closed the connection"), std::string::npos) << stats.last_error;
  EXPECT_GE(key_requests.load(), 2) << "a key frame asked for at each start";
  // A write is counted when its completion runs, which may come after the relay
  // has read the bytes: the count catches up with what the relay received.
  EXPECT_TRUE(WaitFor([&] { return pusher.GetStats().packets_sent >= received; }))
      << pusher.GetStats().packets_sent << " counted, " << received << " received";
  // The relay's receiver report of the second recording, which replaced
  // the first one's figures.
  ASSERT_TRUE(WaitFor([&] { return pusher.GetStats().cumulative_lost == 8; }))
      << pusher.GetStats().cumulative_lost;
  stats = pusher.GetStats();
  EXPECT_EQ(stats.receiver_reports, 1u);
  EXPECT_DOUBLE_EQ(stats.fraction_lost, 0.25);
  EXPECT_DOUBLE_EQ(stats.jitter_ms, 10.0);
  EXPECT_EQ(stats.rtt_ms, -1) << "the report echoes no sender report";

  // The encoder turns to H.265 on the same track: the relay's SDP says
  // H.264, so the pusher announces the stream again.
  poster.reset();
  piple->SetVideoCodecID(QZ_MEDIA_CODEC_ID_H265);
  piple->SetVpsSpsPps(qz_test::kH265Vps.data(), static_cast<QZ_UINT32>(qz_test::kH265Vps.size()),
                      qz_test::kH265Sps.data(), static_cast<QZ_UINT32>(qz_test::kH265Sps.size()),
                      qz_test::kH265Pps.data(), static_cast<QZ_UINT32>(qz_test::kH265Pps.size()));
  poster = std::make_unique<FramePoster>(piple, QZ_MEDIA_CODEC_ID_H265);
  ASSERT_TRUE(WaitFor([&] { return recorded(2); })) << pusher.GetStats().last_error;
  const std::vector<FakeRelay::Connection> all = relay.connections();
  EXPECT_NE(all[1].sdp.find("H264/90000"), std::string::npos) << all[1].sdp;
  EXPECT_NE(all[2].sdp.find("H265/90000"), std::string::npos) << all[2].sdp;
  EXPECT_EQ(all[1].methods.back(), "TEARDOWN") << "the stale recording is ended";

  // The stream is withdrawn while a write is held up by a relay that reads
  // nothing, for longer than the pusher's tick: the push ends (its TEARDOWN
  // given up after half a second) and no attempt is made for the stream
  // that is gone. Posted again, it records again.
  poster.reset();
  relay.Stall(true);
  auto big = std::make_shared<QZRtspVideoPacket>();
  big->codec_id_ = QZ_MEDIA_CODEC_ID_H265;
  big->is_key_frame_ = true;
  big->time_stamp_ = 1000000;
  std::vector<QZ_BYTE> idr = qz_test::kH265Idr;
  idr.resize(300000, 0x5a);
  big->nal_units_.push_back(PacketData(idr));
  piple->PostVideoPacket(big);
  ASSERT_TRUE(WaitFor([&relay] { return relay.pending() >= 4000; })) << relay.pending();
  const unsigned long long attempts = pusher.GetStats().attempts;
  registry->RemovePiple(pusher.Handle(), piple);
  ASSERT_TRUE(WaitFor([&] { return pusher.GetStats().state == "idle"; }));
  relay.Stall(false);
  ASSERT_TRUE(registry->PostPiple(pusher.Handle(), piple, &why)) << why;
  poster = std::make_unique<FramePoster>(piple, QZ_MEDIA_CODEC_ID_H265);
  ASSERT_TRUE(WaitFor([&] { return recorded(3); })) << pusher.GetStats().last_error;
  EXPECT_EQ(pusher.GetStats().attempts, attempts + 1) << "one attempt, for the stream posted again";
  EXPECT_EQ(relay.connections().size(), 4u);

  pusher.Stop();
  ASSERT_TRUE(WaitFor([&relay] {
    const auto all = relay.connections();
    return all.size() == 4 && !all[3].methods.empty() && all[3].methods.back() == "TEARDOWN";
  }));
  EXPECT_EQ(pusher.GetStats().state, "stopped");
  EXPECT_FALSE(registry->PostPiple(pusher.Handle(), second, &why));
}

// A URL the pusher cannot use fails Start and says why.
TEST(PusherTest, StartRefusesUnusableUrls) {
  // (url, over UDP): UDP cannot go inside TLS.
  const std::pair<const char*, bool> cases[] = {{"http://relay/x", false},
                                                {"rtsp://", false},
                                                {"rtsp://relay:99999/x", false},
                                                {"rtsps://relay/x", true}};
  for (const auto& c : cases) {
    qz_test::LogCapture log;
    QZRtspPushOptions options;
    options.url = c.first;
    options.udp = c.second;
    EXPECT_FALSE(QZRtspPusher(options).Start()) << c.first;
    EXPECT_EQ(log.Matching("VartoLogIOS [E] QZRtspPusher::Start cannot push to").size(), 1u)
        << c.first;
  }
}

}  // namespace
}  // namespace qz_rtsp_internal_server
