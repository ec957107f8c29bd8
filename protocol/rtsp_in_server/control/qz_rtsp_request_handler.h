// What the server answers to each RTSP request (RFC 2326): OPTIONS and the
// keep-alives, DESCRIBE, SETUP, PLAY, PAUSE and TEARDOWN, with
// authentication, Require and the session rules. It reads a parsed request
// and the client it came from and answers through that client; sockets,
// reading and writing are the connection's. Network thread only.
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_REQUEST_HANDLER_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_REQUEST_HANDLER_H_

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "protocol/rtsp_in_server/control/qz_rtsp_fanout.h"
#include "protocol/rtsp_in_server/control/qz_rtsp_session_table.h"
#include "protocol/rtsp_in_server/qz_rtsp_server.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"

namespace qz_rtsp_internal_server {

class RtspRequestHandler {
 public:
  struct Env {
    const RtspClock* clock = &RtspClock::System();
    // The stream served under a name, or null.
    std::function<std::shared_ptr<RtspStream>(const std::string& name)> find_stream;
    // Runs work on the network thread after `ms` milliseconds.
    std::function<void(int ms, std::function<void()>)> run_after;
    // A client refused by a limit.
    std::function<void()> count_refused;
    uint16_t udp_rtp_port = 0;  // the server's RTP port; RTCP is the next
  };

  RtspRequestHandler(const QZRtspServerOptions& options,
                     RtspSessionTable& table,
                     RtspFanout& fanout,
                     Env env);

  void Handle(RtspClient& client, const RtspRequest& request);

 private:
  using Headers = std::vector<std::pair<std::string, std::string>>;

  void Reply(RtspClient& client,
             int code,
             const std::string& cseq,
             Headers headers = {},
             const std::string& body = std::string());
  void Describe(const std::shared_ptr<RtspClient>& client,
                const RtspRequest& request,
                const std::string& cseq,
                int waited_ms);
  void Setup(RtspClient& client, const RtspRequest& request, const std::string& cseq);
  void Play(RtspClient& client,
            RtspSession& session,
            const RtspRequest& request,
            const std::string& cseq);
  void Teardown(RtspClient& client,
                RtspSession& session,
                const RtspRequest& request,
                const std::string& cseq);
  // The session the request's Session header names on this connection;
  // `*unknown` when it names one this connection does not have.
  std::shared_ptr<RtspSession> SessionOf(RtspClient& client,
                                         const RtspRequest& request,
                                         bool* unknown) const;
  std::string SessionHeader(const RtspSession& session) const;
  // The interleaved pair for a track: the one asked for when free on this
  // connection, else the track's usual pair, else the first free one; -1
  // when all 128 are taken.
  static int PickChannels(const RtspClient& client, int wanted, int track);
  long long NowMs() const { return env_.clock->SteadyUs() / 1000; }

  const QZRtspServerOptions& options_;
  RtspAuthenticator auth_;
  RtspSessionTable& table_;
  RtspFanout& fanout_;
  Env env_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_REQUEST_HANDLER_H_
