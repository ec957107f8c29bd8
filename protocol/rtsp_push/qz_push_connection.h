// One connection of a pusher to its relay: the TCP socket that carries the
// RTSP dialogue (RtspPushProtocol) and, interleaved or over a UDP port
// pair, the stream's RTP packets from its shared ring, with RTCP sender
// reports. It reads the ring like a slow viewer does: what the relay has
// not taken when the ring lets go of it is skipped up to a key frame.
// Network thread only; the pusher makes a new one for every attempt.
#ifndef PROTOCOL_RTSP_PUSH_QZ_PUSH_CONNECTION_H_
#define PROTOCOL_RTSP_PUSH_QZ_PUSH_CONNECTION_H_

#include <array>
#include <asio.hpp>
#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/media/qz_rtsp_stream.h"
#include "protocol/rtsp_in_server/net/qz_rtsp_link.h"
#include "protocol/rtsp_in_server/rtp/qz_rtcp.h"
#include "protocol/rtsp_in_server/tls/qz_tls_client.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_url.h"
#include "protocol/rtsp_push/qz_push_protocol.h"

namespace qz_rtsp_internal_server {

// What every connection of a pusher adds to (any thread reads them).
struct PushCounters {
  std::atomic<unsigned long long> bytes_sent{0};
  std::atomic<unsigned long long> packets_sent{0};
  std::atomic<unsigned long long> packets_dropped{0};
  mutable std::mutex reception_mutex;  // guards reception
  // The relay's receiver reports, the latest of any track.
  RtcpReception reception;
};

class PushConnection : public std::enable_shared_from_this<PushConnection> {
 public:
  struct Env {
    asio::io_context* io = nullptr;
    RtspUrl url;
    // rtsps:// URLs: the TLS context that checks the relay.
    TlsClientContext* tls = nullptr;
    bool udp = false;
    bool allow_basic_in_clear = false;
    int response_timeout_ms = 10000;
    int write_stall_timeout_ms = 10000;
    PushCounters* counters = nullptr;
    // Where the dialogue is ("connecting", then the protocol's state names).
    std::function<void(const std::string& state)> on_state;
    std::function<void()> on_recording;
    // The connection failed or the relay ended it; it is closed already.
    std::function<void(const std::string& error)> on_failed;
    std::function<void()> request_key_frame;
  };

  PushConnection(Env env, std::shared_ptr<RtspStream> stream);
  ~PushConnection();

  // Resolves the relay's name and connects.
  void Start();
  // New packets in the stream.
  void OnPackets();
  // Timeouts, keep-alives and sender reports; called a few times a second.
  void Tick();
  // Sends TEARDOWN when recording and closes once it is written (or at
  // once); `done` runs when closed. No on_failed after this.
  void Finish(std::function<void()> done);
  // Closes at once, without a word to the relay or a callback (the `done`
  // of a Finish() under way is dropped, not called).
  void Close();

  bool recording() const { return protocol_ && protocol_->recording(); }
  // The tracks the relay was announced (codec and clock per track).
  const std::vector<RtpTrackInfo>& announced() const { return announced_; }

 private:
  static constexpr size_t kMaxBuffers = 64;
  static constexpr size_t kMaxBytes = 256 * 1024;
  static constexpr long long kReportIntervalMs = 5000;
  // The kernel's send buffer holds about this much of the stream (as a
  // server's TCP viewers get by default).
  static constexpr int kSendBufferMs = 500;

  long long NowMs() const { return stream_->clock().SteadyMs(); }
  void SetState(const std::string& state);
  void Fail(const std::string& error);
  void Handshake();  // TLS's, over rtsps; at once over plain TCP
  void OnConnected();
  bool OpenUdpPorts(std::vector<std::pair<int, int>>& ports, std::string& why);
  void Read();
  void OnRead(size_t bytes);
  void Act(const RtspPushProtocol::Action& action);
  void StartRecording();
  void Queue(std::string bytes);
  void Flush();
  void OnWritten(const asio::error_code& ec, size_t bytes);
  void SendUdp();
  // Moves the read position back into the ring (cut back to a key frame
  // when the relay fell out of it) and past packets before the key frame
  // the connection waits for.
  void Resync();
  void SendReports(bool start);
  // The relay's RTCP (receiver reports) about our tracks.
  void OnRelayRtcp(const uint8_t* data, size_t size);
  // UDP: reads the relay's RTCP from track `t`'s RTCP port.
  void ReadUdpRtcp(size_t t);
  // TCP: sizes the socket's send buffer to the stream's bit rate.
  void SizeSendBuffer();

  Env env_;
  std::shared_ptr<RtspStream> stream_;
  asio::ip::tcp::resolver resolver_;
  asio::ip::tcp::socket socket_;  // until connected; then the link's
  std::unique_ptr<RtspLink> link_;
  std::unique_ptr<RtspPushProtocol> protocol_;
  std::vector<RtpTrackInfo> announced_;
  RtcpSentReports sent_reports_;  // to the relay, which echoes them
  RtspRequestParser parser_{RtspLimits(), true};
  std::array<char, 16384> read_buffer_;
  bool closed_ = false;
  long long started_ms_ = 0;
  long long request_sent_ms_ = 0;  // of the request awaiting its answer

  // Writes: requests, RTCP, and media, one scatter-gather write at a time.
  std::deque<std::string> queued_;
  bool writing_ = false;
  long long write_started_ms_ = 0;
  std::vector<std::string> writing_control_;
  std::vector<std::shared_ptr<RtpPacket>> writing_packets_;
  std::array<std::array<uint8_t, 4>, kMaxBuffers> headers_;
  std::vector<asio::const_buffer> buffers_;
  bool finishing_ = false;
  std::function<void()> finished_;

  // The position in the stream's ring while recording.
  RtspRingReader reader_;
  bool reader_added_ = false;
  bool wait_key_ = false;
  long long next_keepalive_ms_ = 0;
  long long next_report_ms_ = 0;
  size_t send_buffer_bytes_ = 0;  // as asked for; 0: left to the kernel so far

  // UDP: per track, our RTP and RTCP sockets and the relay's ports.
  std::vector<std::unique_ptr<asio::ip::udp::socket>> udp_rtp_;
  std::vector<std::unique_ptr<asio::ip::udp::socket>> udp_rtcp_;
  std::vector<asio::ip::udp::endpoint> rtp_to_;
  std::vector<asio::ip::udp::endpoint> rtcp_to_;
  // The relay's RTCP as it arrives on them, and who sent it.
  std::vector<std::array<uint8_t, 1500>> rtcp_buffers_;
  std::vector<asio::ip::udp::endpoint> rtcp_from_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_PUSH_QZ_PUSH_CONNECTION_H_
