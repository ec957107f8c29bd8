// One RTSP client connection over TCP: reads and parses requests and hands
// them to the request handler, and writes the answers, interleaved RTCP and
// the media of its TCP sessions (scatter-gather, straight from the stream's
// shared packets) in order. Network thread only.
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CONNECTION_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CONNECTION_H_

#include <array>
#include <asio.hpp>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/control/qz_rtsp_client.h"
#include "protocol/rtsp_in_server/control/qz_rtsp_core.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"

namespace qz_rtsp_internal_server {

class RtspConnection : public RtspClient {
 public:
  // `on_closed` runs once when the connection closes.
  RtspConnection(RtspServerCore& core,
                 asio::ip::tcp::socket socket,
                 bool over_limit,
                 std::function<void(RtspConnection*)> on_closed);

  void Start();

  void SendResponse(std::string response) override;
  bool SendInterleaved(uint8_t channel, const std::vector<uint8_t>& rtcp) override;
  void KickWrite() override;
  void CloseAfterWrite() override;
  void Close() override;
  bool closed() const override { return closed_; }

  // Sizes the socket's send buffer to the server's `tcp_send_buffer_ms` of
  // the bit rate of the streams this connection plays over TCP, each stream
  // once however many sessions play it, within a per-connection cap. Before
  // the first media write and on every tick (no change for small
  // differences).
  void SizeSendBuffer();

 private:
  void DoRead();
  void OnRead(size_t n);
  // A media or control write ended (`bytes` of it written unless `ec`).
  void FinishWrite(const asio::error_code& ec, size_t bytes);

  RtspServerCore& core_;
  asio::ip::tcp::socket socket_;
  std::function<void(RtspConnection*)> on_closed_;
  bool closed_ = false;
  RtspRequestParser parser_;
  std::array<char, 8192> read_buffer_;
  std::deque<std::string> control_;  // responses and RTCP, written before media
  size_t control_bytes_ = 0;
  size_t send_buffer_bytes_ = 0;  // what SizeSendBuffer() last set
  bool writing_ = false;
  std::string writing_control_;
  RtspTcpWrite media_;
  bool close_after_write_ = false;  // answer sent, then close
  bool handling_ = false;           // inside the request handler
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CONNECTION_H_
