// The server's logic on fakes, for tests that drive it without sockets,
// threads or sleeps: a core (request handler, session table, fan-out) on a
// hand-moved clock and a counting random source, a UDP sink and client
// connections that record what would be sent, and one stream ("live":
// H.264 and G.711 A-law) whose records the test posts. Work the server would
// run in a later turn of its network thread waits until Drain().
#ifndef TESTS_FAKES_FAKE_RTSP_CORE_H_
#define TESTS_FAKES_FAKE_RTSP_CORE_H_

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "protocol/rtsp_in_server/control/qz_rtsp_core.h"
#include "tests/fakes/fake_seams.h"
#include "tests/fakes/rtsp_test_client.h"

namespace qz_test {

using qz_rtsp_internal_server::QZRtspPacketPiple;
using qz_rtsp_internal_server::RtspClient;
using qz_rtsp_internal_server::RtspServerCore;
using qz_rtsp_internal_server::RtspStream;
using Endpoint = asio::ip::udp::endpoint;

struct Datagram {
  Endpoint to;
  std::string bytes;
  bool rtcp;
};

class FakeUdpSink : public qz_rtsp_internal_server::UdpSink {
 public:
  void Add(const Endpoint& to, const uint8_t* data, size_t size, void* tag) override {
    sent.push_back({to, std::string(reinterpret_cast<const char*>(data), size), false});
    Report(tag, size, true);
  }
  void Flush() override {}
  void SendRtcp(const Endpoint& to, const uint8_t* data, size_t size, void* tag) override {
    sent.push_back({to, std::string(reinterpret_cast<const char*>(data), size), true});
    Report(tag, size, true);
  }
  std::vector<Datagram> sent;
};

// What a client connection was given, in the order it would write it: a
// response (channel -1) or an interleaved frame (its channel, its bytes
// without the 4-byte header).
struct Written {
  int channel;
  std::string bytes;
};

using Reply = Response;  // status -1: no answer

class FakeClient : public RtspClient {
 public:
  FakeClient(RtspServerCore& core, uint16_t remote_port, const std::string& remote_address);

  void SendResponse(std::string response) override { written.push_back({-1, std::move(response)}); }
  bool SendInterleaved(uint8_t channel, const std::vector<uint8_t>& rtcp) override {
    written.push_back({channel, std::string(rtcp.begin(), rtcp.end())});
    return true;
  }
  // Writes every media write the fan-out gathers, unless `stalled`.
  void KickWrite() override;
  void CloseAfterWrite() override { close_after_write = true; }
  void Close() override;
  bool closed() const override { return closed_; }

  std::vector<Written> written;
  int media_writes = 0;
  bool stalled = false;  // a full socket: nothing is written
  bool close_after_write = false;

 private:
  RtspServerCore& core_;
  qz_rtsp_internal_server::RtspTcpWrite write_;
  bool closed_ = false;
};

class FakeRtspCore {
 public:
  explicit FakeRtspCore(qz_rtsp_internal_server::QZRtspServerOptions options =
                            qz_rtsp_internal_server::QZRtspServerOptions());
  ~FakeRtspCore();

  // A new client connection from <address>:<port>.
  std::shared_ptr<FakeClient> Connect(uint16_t port = 50000, const char* address = "127.0.0.1") {
    return std::make_shared<FakeClient>(*core_, port, address);
  }
  // Hands the request to the server as the connection would and returns
  // the answer (the last response written). The URL is the stream's, with
  // `url_suffix` appended.
  Reply Send(FakeClient& client,
             const std::string& method,
             const std::string& url_suffix = "",
             const std::string& extra = "");
  // The same on `session`.
  Reply In(FakeClient& client,
           const std::string& method,
           const std::string& session,
           const std::string& url_suffix = "") {
    return Send(client, method, url_suffix, "Session: " + session + "\r\n");
  }
  // The raw text of a request, for requests that are not well formed.
  Reply SendRaw(FakeClient& client, const std::string& text);
  // SETUP of `track` (TCP on `channels`, "udp:<port>" for UDP, or a whole
  // Transport value beginning "RTP/") on the session, or a new one; Setup()
  // returns the session id.
  Reply SetupReply(FakeClient& client,
                   int track,
                   const std::string& transport,
                   const std::string& session = "");
  std::string Setup(FakeClient& client,
                    int track,
                    const std::string& transport,
                    const std::string& session = "") {
    const Reply reply = SetupReply(client, track, transport, session);
    const std::string id = reply.Header("Session");
    return reply.status == 200 ? id.substr(0, id.find(';')) : std::string();
  }
  // SETUP of video on `video` (and of audio on `audio` when given) in a new
  // session, then PLAY; returns the session id.
  std::string Play(FakeClient& client, const std::string& video, const std::string& audio = "") {
    const std::string session = Setup(client, 0, video);
    if (!audio.empty()) {
      Setup(client, 1, audio, session);
    }
    In(client, "PLAY", session);
    return session;
  }
  // A datagram that reaches the server's UDP ports from <address>:<port>;
  // false when no session sends from there.
  bool FromUdp(int port,
               const std::vector<uint8_t>& bytes,
               uint32_t arrival_ntp = 0,
               const char* address = "127.0.0.1") {
    const Endpoint from(asio::ip::make_address(address), static_cast<uint16_t>(port));
    return table().OnUdpPacket(from, bytes.data(), bytes.size(), core_->NowMs(), arrival_ntp);
  }
  // An interleaved frame the client sent.
  void FromTcp(FakeClient& client,
               int channel,
               const std::vector<uint8_t>& bytes,
               uint32_t arrival_ntp = 0) {
    table().OnInterleaved(client, static_cast<uint8_t>(channel),
                          std::string(bytes.begin(), bytes.end()), core_->NowMs(), arrival_ntp);
  }

  // Records of frame `i` (video: key frame every `gop`-th; G.711 audio),
  // posted into the pipe as the publisher would, then drained.
  void Feed(int from, int count, int gop = 10);
  // `pushed_us`: the frame's push time, as the sinker notes it (0: none).
  void PostVideo(int i, bool key, long long pushed_us = 0);
  void PostAudio(int i);
  // Runs what the network thread would run next: gate batches, posted work,
  // and timers that are due on the clock.
  void Drain();
  void AdvanceMs(long long ms);
  void Tick() { core_->Tick(core_->NowMs()); }

  RtspServerCore& core() { return *core_; }
  qz_rtsp_internal_server::RtspSessionTable& table() { return core_->table(); }
  RtspStream& stream() { return *stream_; }
  std::shared_ptr<QZRtspPacketPiple>& piple() { return piple_; }
  FakeClock& clock() { return clock_; }
  FakeUdpSink& udp() { return udp_; }
  std::vector<std::string>& key_frame_requests() { return key_frame_requests_; }
  RtspServerCore::Totals& totals() { return totals_; }
  static constexpr const char* kUrl = "rtsp://127.0.0.1:8554/live";

 private:
  FakeClock clock_;
  CountingRandom random_;
  FakeUdpSink udp_;
  RtspServerCore::Totals totals_;
  std::shared_ptr<QZRtspPacketPiple> piple_;
  std::shared_ptr<RtspStream> stream_;
  std::unique_ptr<RtspServerCore> core_;
  std::vector<std::function<void()>> batches_;
  std::vector<std::function<void()>> posted_;
  std::vector<std::pair<long long, std::function<void()>>> timers_;
  std::vector<std::string> key_frame_requests_;
};

// The interleaved frames a client was given from its `from`-th write on,
// responses left out.
std::vector<Written> Frames(const FakeClient& client, size_t from = 0);
// An RTCP receiver report (RFC 3550 6.4.2) from source 9 with one report
// block about `ssrc`; `bye` appends a BYE of source 9.
std::vector<uint8_t> ReceiverReport(uint32_t ssrc,
                                    uint8_t fraction_lost,
                                    uint32_t cumulative_lost,
                                    uint32_t jitter,
                                    uint32_t lsr = 0,
                                    uint32_t dlsr = 0,
                                    bool bye = false);
// The RTP sequence number of a packet's bytes.
inline int SeqOf(const std::string& rtp) {
  return (static_cast<uint8_t>(rtp[2]) << 8) | static_cast<uint8_t>(rtp[3]);
}
inline bool IsSenderReport(const std::string& rtcp) {
  return rtcp.size() > 1 && static_cast<uint8_t>(rtcp[1]) == 200;
}

}  // namespace qz_test

#endif  // TESTS_FAKES_FAKE_RTSP_CORE_H_
