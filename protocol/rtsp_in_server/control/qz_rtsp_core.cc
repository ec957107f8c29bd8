#include "protocol/rtsp_in_server/control/qz_rtsp_core.h"

namespace qz_rtsp_internal_server {

RtspServerCore::RtspServerCore(const QZRtspServerOptions& options, Env env, Totals& totals)
    : options_(options),
      env_(std::move(env)),
      totals_(totals),
      table_(*env_.random),
      fanout_(table_,
              *env_.udp,
              totals_.delivery,
              RtspFanout::Env{env_.clock, env_.post, options_.on_key_frame_request,
                              options_.gop_cache}),
      handler_(options_,
               table_,
               fanout_,
               RtspRequestHandler::Env{env_.clock, env_.find_stream, env_.run_after,
                                       [this] { CountRefused(); }, env_.udp_rtp_port}) {}

std::map<const RtspStream*, int> RtspServerCore::Tick(long long now_ms) {
  table_.Expire(now_ms, options_.session_timeout_s * 1000LL);
  std::map<const RtspStream*, int> playing;
  std::vector<std::shared_ptr<RtspSession>> sessions;
  for (const auto& entry : table_.sessions()) {
    sessions.push_back(entry.second);
  }
  for (auto& session : sessions) {
    if (session->playing()) {
      ++playing[&session->stream()];
      fanout_.SendDueReports(*session, now_ms);
    }
  }
  return playing;
}

void RtspServerCore::ClientClosed(RtspClient& client) {
  std::vector<std::string> ids;
  for (const auto& entry : client.sessions()) {
    ids.push_back(entry.first);
  }
  for (const std::string& id : ids) {
    table_.Destroy(id);
  }
  client.sessions().clear();
}

std::vector<QZRtspSessionStats> RtspServerCore::SessionStats() const {
  std::vector<QZRtspSessionStats> out;
  for (const auto& entry : table_.sessions()) {
    const RtspSession& session = *entry.second;
    QZRtspSessionStats s;
    s.id = session.id();
    s.stream = session.stream().name();
    s.tcp = session.HasTcpTrack();
    if (auto client = session.client()) {
      const asio::ip::address address = client->remote().address();
      // An IPv4 client of the dual-stack socket by its IPv4 address.
      s.client = address.is_v6() && address.to_v6().is_v4_mapped()
                     ? asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string()
                     : address.to_string();
    }
    s.playing = session.playing();
    s.bytes_sent = session.bytes_sent;
    s.packets_sent = session.packets_sent;
    s.packets_dropped = session.packets_dropped;
    const RtspReception& r = session.reception();
    s.receiver_reports = r.reports;
    s.fraction_lost = r.fraction_lost;
    s.cumulative_lost = r.cumulative_lost;
    s.jitter_ms = r.jitter_ms;
    s.rtt_ms = r.rtt_ms;
    out.push_back(std::move(s));
  }
  return out;
}

}  // namespace qz_rtsp_internal_server
