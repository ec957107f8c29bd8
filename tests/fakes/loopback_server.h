// The server over loopback sockets with one stream, "live", published as
// it plays: the fixture of the loopback tests (plain RTSP and RTSP over
// TLS).
#ifndef TESTS_FAKES_LOOPBACK_SERVER_H_
#define TESTS_FAKES_LOOPBACK_SERVER_H_

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/qz_rtsp_server.h"
#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"
#include "tests/fakes/rtsp_test_client.h"
#include "tests/fakes/test_support.h"

namespace qz_rtsp_internal_server {

// A pipe as the publisher describes it: H.264 with its parameter sets, and
// G.711 A-law.
inline std::shared_ptr<QZRtspPacketPiple> DescribedPipe(const std::string& name) {
  auto piple = std::make_shared<QZRtspPacketPiple>(name);
  piple->IsHasVideo(true);
  piple->SetVideoCodecID(QZ_MEDIA_CODEC_ID_H264);
  piple->IsHasAudio(true);
  piple->SetAudioCodecID(QZ_MEDIA_CODEC_ID_PCMA);
  piple->SetSpsPps(qz_test::kH264Sps.data(), 7, qz_test::kH264Pps.data(), 4);
  return piple;
}

// Posts a video and an audio record every 10 ms, a key frame every 10th,
// until `stop`. Video carries a push time 5 ms before its posting, audio none.
inline void Publish(QZRtspPacketPiple& piple, const std::atomic<bool>& stop) {
  for (int i = 0; !stop; ++i) {
    using Bytes = std::vector<uint8_t>;
    auto video = std::make_shared<QZRtspVideoPacket>();
    video->codec_id_ = QZ_MEDIA_CODEC_ID_H264;
    video->is_key_frame_ = i % 10 == 0;
    video->time_stamp_ = static_cast<QZ_UINT64>(i) * 10;
    video->pushed_us_ = std::chrono::duration_cast<std::chrono::microseconds>(
                            std::chrono::steady_clock::now().time_since_epoch())
                            .count() -
                        5000;
    video->nal_units_.push_back(  // a key frame is fragmented
        qz_test::PacketData(video->is_key_frame_ ? Bytes(3000, 0x65) : Bytes(500, 0x41)));
    piple.PostVideoPacket(video);
    auto audio = std::make_shared<QZRtspAudioPacket>();
    audio->codec_id_ = QZ_MEDIA_CODEC_ID_PCMA;
    audio->sample_rate_ = 8000;
    audio->channels_ = 1;
    audio->time_stamp_ = video->time_stamp_;
    audio->data_ = qz_test::PacketData(Bytes(80, 0xD5));
    piple.PostAudioPacket(audio);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

class LoopbackServerTest : public ::testing::Test {
 protected:
  // A free port, and tight request limits (see BytesOnAConnection): a
  // request (or a TLS handshake) must end within 400 ms.
  static QZRtspServerOptions Options() {
    QZRtspServerOptions options;
    options.url_host = "127.0.0.1";
    options.port = 0;
    options.max_headers = 5;
    options.max_request_bytes = 512;
    options.request_timeout_ms = 400;
    return options;
  }
  void SetUp() override { Restart(Options()); }
  void TearDown() override { StopPublishing(); }

  // A fresh server, publishing "live".
  void Restart(const QZRtspServerOptions& options) {
    StopPublishing();
    server_.reset();
    server_.reset(new QZRtspServer(options));
    ASSERT_TRUE(server_->Start());
    piple_ = DescribedPipe("live");
    ASSERT_TRUE(QZRtspServerMgr::Instance()->PostPiple(server_->Handle(), piple_));
    stop_ = false;
    publisher_ = std::thread([this, piple = piple_] { Publish(*piple, stop_); });
    url_ = "rtsp://127.0.0.1:" + std::to_string(server_->Port()) + "/live";
  }
  void StopPublishing() {
    stop_ = true;
    if (publisher_.joinable()) {
      publisher_.join();
    }
  }

  // SETUP of the video track and PLAY; returns the PLAY's status, and the
  // SETUP's answer in `setup`.
  int Play(qz_test::Client& c,
           const std::string& transport = "RTP/AVP/TCP;unicast;interleaved=0-1",
           qz_test::Response* setup = nullptr) {
    c.Send(c.Request("SETUP", url_ + "/trackID=0", 1, "Transport: " + transport + "\r\n"));
    const qz_test::Response answer = c.Read();
    c.Send(c.Request("PLAY", url_, 2, "Session: " + qz_test::SessionId(answer) + "\r\n"));
    if (setup != nullptr) {
      *setup = answer;
    }
    return c.Read().status;
  }

  // The status of an OPTIONS request.
  int AskOptions(qz_test::Client& c, int cseq = 1) {
    c.Send(c.Request("OPTIONS", url_, cseq));
    return c.Read().status;
  }

  std::unique_ptr<QZRtspServer> server_;
  std::shared_ptr<QZRtspPacketPiple> piple_;
  std::atomic<bool> stop_{true};
  std::thread publisher_;
  std::string url_;
};

}  // namespace qz_rtsp_internal_server

#endif  // TESTS_FAKES_LOOPBACK_SERVER_H_
