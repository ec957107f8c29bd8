// One RTSP client connection: reads and parses requests, dispatches them by
// method, echoes CSeq, and writes responses and TCP-interleaved media. The
// media is written scatter-gather straight from the stream's shared packets.
// Network thread only.
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CONNECTION_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CONNECTION_H_

#include <asio.hpp>

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_server.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_packet.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"

namespace qz_rtsp_internal_server {

struct RtspSession;
class RtspStream;

class RtspConnection : public std::enable_shared_from_this<RtspConnection> {
 public:
  RtspConnection(QZRtspServer::Impl& server, asio::ip::tcp::socket socket, bool over_limit);

  void Start();
  void Close();
  // Closes once the queued responses are written.
  void CloseAfterWrite();
  bool closed() const { return closed_; }

  // Writes pending responses, RTCP and the media of this connection's TCP
  // sessions, one scatter-gather write at a time.
  void KickWrite();
  // Sizes the socket's send buffer to `ms` of the bit rate of the streams
  // this connection plays over TCP (tick; no change for small differences).
  void SizeSendBuffer(int ms);
  // Queues RTCP for a TCP track; false (dropped) when the queue is long.
  // The caller kicks the write once it queued every report that must go
  // before the next media (a write may start at once and take the media).
  bool SendInterleaved(uint8_t channel, const std::vector<uint8_t>& rtcp);

  asio::ip::address remote_address() const { return remote_.address(); }
  long long last_activity_ms() const { return last_activity_ms_; }
  // When the unfinished request (or interleaved frame) began; 0 when none.
  long long request_started_ms() const { return request_started_ms_; }
  bool has_sessions() const { return !sessions_.empty(); }
  const std::map<std::string, std::shared_ptr<RtspSession>>& sessions() const { return sessions_; }
  void ForgetSession(const std::string& id) { sessions_.erase(id); }

 private:
  // A media or control write ended (`bytes` of it written unless `ec`).
  void FinishWrite(const asio::error_code& ec, size_t bytes);
  void DoRead();
  void OnRequest(const RtspRequest& request);
  void OnInterleaved(uint8_t channel);
  void Reply(int code,
             const std::string& cseq,
             std::vector<std::pair<std::string, std::string>> headers = {},
             const std::string& body = std::string());
  void HandleDescribe(const RtspRequest& request, const std::string& cseq, int waited_ms);
  void HandleSetup(const RtspRequest& request, const std::string& cseq);
  void HandlePlay(RtspSession& session, const RtspRequest& request, const std::string& cseq);
  std::shared_ptr<RtspSession> SessionOf(const RtspRequest& request, bool* unknown);
  // The stream named by the request's URL; answers 404 when there is none.
  std::shared_ptr<RtspStream> StreamOf(const RtspRequest& request,
                                       const std::string& cseq,
                                       std::string& name,
                                       std::string& control);
  std::string BaseUrl(const RtspRequest& request, const std::string& stream) const;
  bool GatherMedia(std::vector<asio::const_buffer>& buffers);
  // The track a URL's control part names; a SETUP of a one-track stream's
  // own URL means its track. -1 when none.
  static int TrackOf(const std::string& control, const RtspStream& stream, bool setup);
  // No set-up TCP track of this connection uses the interleaved channel.
  bool ChannelFree(int channel) const;

  QZRtspServer::Impl& server_;
  asio::ip::tcp::socket socket_;
  asio::ip::tcp::endpoint remote_;
  asio::ip::tcp::endpoint local_;
  bool over_limit_;
  bool closed_ = false;
  RtspRequestParser parser_;
  std::array<char, 8192> read_buffer_;
  std::deque<std::string> control_;  // responses and RTCP, written before media
  size_t control_bytes_ = 0;
  size_t send_buffer_bytes_ = 0;  // what SizeSendBuffer() last set
  bool writing_ = false;
  std::string writing_control_;
  std::vector<std::shared_ptr<RtpPacket>> writing_packets_;
  // Interleaved headers of the write under way for packets sent on another
  // channel than their own (one per packet at most).
  std::array<std::array<uint8_t, 4>, 64> interleaved_headers_;
  std::shared_ptr<RtspSession> writing_session_;
  bool close_after_write_ = false;  // answer sent, then close
  std::map<std::string, std::shared_ptr<RtspSession>> sessions_;
  long long last_activity_ms_ = 0;
  long long request_started_ms_ = 0;
  std::shared_ptr<asio::steady_timer> describe_timer_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CONNECTION_H_
