// One RTSP client connection over TCP, or over TLS on the server's TLS port
// (the link, net/qz_rtsp_link.h): reads and parses requests and hands them
// to the request handler, and writes the answers, interleaved RTCP and the
// media of its TCP sessions (scatter-gather, straight from the stream's
// shared packets) in order. With the server's `http_tunnel` on, it may be a
// half of an HTTP tunnel instead (wire/qz_rtsp_tunnel.h): the GET half is
// the client the server's logic sees; the POST half decodes requests and
// hands them to the handler for its GET half. Network thread only.
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
#include "protocol/rtsp_in_server/net/qz_rtsp_link.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_tunnel.h"

namespace qz_rtsp_internal_server {

class RtspConnection : public RtspClient {
 public:
  // `on_closed` runs once when the connection closes. `sniff`: its first
  // bytes may make it a half of an HTTP tunnel.
  RtspConnection(RtspServerCore& core,
                 std::unique_ptr<RtspLink> link,
                 bool over_limit,
                 bool sniff,
                 std::function<void(RtspConnection*)> on_closed);

  // The link's handshake (TLS), then the first read. A handshake that fails
  // closes the connection; one that has not ended within the request time
  // limit is closed like a request begun and not finished.
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
  enum class Mode {
    kSniff,       // the first bytes tell RTSP from an HTTP tunnel's half
    kRtsp,        // plain RTSP
    kHttpHead,    // a tunnel half's HTTP request head
    kTunnelGet,   // the GET half: writes everything, reads nothing more
    kTunnelWait,  // a POST whose GET has not come: not read until it does
    kTunnelPost,  // the POST half: base64 requests for its GET half
  };

  void DoRead();
  void OnRead(size_t n);
  // Parses what `parser_` holds and hands it to `target`: this connection,
  // or the GET half of this POST half's tunnel.
  void ParseRequests(RtspConnection& target, long long now);
  void ReadHttpHead(const char* data, size_t n, long long now);
  void OpenTunnel(const std::string& cookie, long long now);
  void JoinTunnel(const std::string& cookie, long long now);
  void ReadTunnelled(const char* data, size_t n, long long now);
  // From now on `post` sends requests for `get`; what `post` has read
  // since its head is handled at once.
  static void Pair(const std::shared_ptr<RtspConnection>& get,
                   const std::shared_ptr<RtspConnection>& post,
                   long long now);
  // A media or control write ended (`bytes` of it written unless `ec`).
  void FinishWrite(const asio::error_code& ec, size_t bytes);

  RtspServerCore& core_;
  std::unique_ptr<RtspLink> link_;
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

  Mode mode_;
  std::string pending_;  // read but not parsed: the first bytes, a waiting POST's body
  std::unique_ptr<HttpTunnelHeadParser> head_;
  Base64StreamDecoder base64_;
  std::string cookie_;  // the tunnel this half registered under
  // The other half of the tunnel; each holds the other until both close.
  std::shared_ptr<RtspConnection> tunnel_peer_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CONNECTION_H_
