// One client connection as the server's logic sees it: where its answers,
// its interleaved RTCP and the media of its TCP sessions go, and the
// sessions it set up. The server's RtspConnection is one over a TCP socket;
// tests use one that records what it is given.
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CLIENT_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CLIENT_H_

#include <asio.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"

namespace qz_rtsp_internal_server {

class RtspSession;

class RtspClient : public std::enable_shared_from_this<RtspClient> {
 public:
  RtspClient(asio::ip::tcp::endpoint local, asio::ip::tcp::endpoint remote)
      : local_(local), remote_(remote) {}
  virtual ~RtspClient() = default;

  // Queues a response behind the earlier ones.
  virtual void SendResponse(std::string response) = 0;
  // Queues RTCP on an interleaved channel; false (dropped) when the client
  // does not read what it is sent. The caller kicks the write once it queued
  // every report that must go before the next media.
  virtual bool SendInterleaved(uint8_t channel, const std::vector<uint8_t>& rtcp) = 0;
  // Media of this client's TCP sessions waits to be written.
  virtual void KickWrite() = 0;
  // Closes once the queued responses are written / at once. Closing ends
  // the client's sessions.
  virtual void CloseAfterWrite() = 0;
  virtual void Close() = 0;
  virtual bool closed() const = 0;

  const asio::ip::tcp::endpoint& local() const { return local_; }
  const asio::ip::tcp::endpoint& remote() const { return remote_; }
  // The sessions set up on this connection, by id: a session is only known
  // to the connection that made it.
  std::map<std::string, std::shared_ptr<RtspSession>>& sessions() { return sessions_; }
  const std::map<std::string, std::shared_ptr<RtspSession>>& sessions() const { return sessions_; }
  // Refused by the server's connection limits: its first request is
  // answered 503 and the connection closes.
  bool over_limit = false;
  // Inside TLS: its sessions' media goes only inside the connection
  // (interleaved), never over UDP in clear.
  bool encrypted = false;
  // The connection's Digest nonce: it is good on this connection only.
  RtspAuthState auth;
  // The POST half of an HTTP tunnel, once paired: the GET half it sends
  // requests for, which holds the sessions and writes everything. The POST
  // keeps no idle clock of its own and counts as playing when its GET
  // plays; the two close together.
  const RtspClient* tunnel_output = nullptr;

  // The connection's clocks (the server's steady milliseconds), which the
  // core's Overdue() judges on every tick:
  // when it was accepted;
  long long accepted_ms = 0;
  // since when it has had no session: from accept until its first
  // successful SETUP, and again once its last session ended (0 while it has
  // one). Nothing else a client sends stops this clock;
  long long idle_since_ms = 0;
  // when the unfinished request (or interleaved frame) began (0: none);
  long long request_started_ms = 0;
  // since when a write has waited for the socket to drain (0: none waits).
  long long write_blocked_since_ms = 0;

 private:
  asio::ip::tcp::endpoint local_;
  asio::ip::tcp::endpoint remote_;
  std::map<std::string, std::shared_ptr<RtspSession>> sessions_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CLIENT_H_
