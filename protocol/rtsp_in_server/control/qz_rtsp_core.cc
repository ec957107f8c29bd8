#include "protocol/rtsp_in_server/control/qz_rtsp_core.h"

#include <limits>

#include "protocol/rtsp_in_server/net/qz_udp_demux.h"

namespace qz_rtsp_internal_server {

namespace {

// The groups of the options (none when multicast is off, or its options
// cannot be served: Start() refuses those).
RtspMulticastConfig MulticastConfig(const QZRtspServerOptions& options) {
  RtspMulticastConfig config;
  if (options.multicast) {
    RtspMulticastConfig::FromOptions(options, &config);
  }
  return config;
}

}  // namespace

RtspServerCore::RtspServerCore(const QZRtspServerOptions& options, Env env, Totals& totals)
    : options_(options),
      env_(std::move(env)),
      totals_(totals),
      table_(*env_.random, MulticastConfig(options_)),
      fanout_(table_,
              *env_.udp,
              totals_.delivery,
              RtspFanout::Env{env_.clock, env_.post, env_.run_after, options_.on_key_frame_request,
                              options_.gop_cache}),
      handler_(options_,
               table_,
               fanout_,
               RtspRequestHandler::Env{env_.clock, env_.find_stream, env_.run_after,
                                       [this] { CountRefused(); }, env_.udp_rtp_port}) {}

namespace {

// How long a refused connection may take to send the request its 503
// answers.
constexpr long long kRefusedGraceMs = 2000;

bool Playing(const RtspClient& client) {
  const RtspClient& sessions = client.tunnel_output ? *client.tunnel_output : client;
  for (const auto& entry : sessions.sessions()) {
    if (entry.second->playing()) {
      return true;
    }
  }
  return false;
}

}  // namespace

RtspServerCore::Admission RtspServerCore::Admit(const std::vector<RtspClient*>& open,
                                                const asio::ip::address& from,
                                                RtspClient** evict) const {
  const asio::ip::address address = PlainAddress(from);
  int same_address = 0;
  RtspClient* oldest_idle = nullptr;
  for (RtspClient* client : open) {
    same_address += PlainAddress(client->remote().address()) == address ? 1 : 0;
    if (!Playing(*client) &&
        (oldest_idle == nullptr || client->accepted_ms < oldest_idle->accepted_ms)) {
      oldest_idle = client;
    }
  }
  if (options_.max_clients_per_address > 0 && same_address >= options_.max_clients_per_address) {
    return Admission::kRefuse;
  }
  if (static_cast<int>(open.size()) < options_.max_clients) {
    return Admission::kAdmit;
  }
  if (oldest_idle == nullptr) {
    return Admission::kRefuse;
  }
  *evict = oldest_idle;
  return Admission::kEvict;
}

const char* RtspServerCore::Overdue(RtspClient& client, long long now_ms) const {
  if (client.over_limit) {
    return now_ms - client.accepted_ms > kRefusedGraceMs ? "refused" : nullptr;
  }
  if (!client.sessions().empty() || client.tunnel_output != nullptr) {
    client.idle_since_ms = 0;
  } else if (client.idle_since_ms == 0) {
    client.idle_since_ms = now_ms;
  }
  if (client.idle_since_ms != 0 &&
      now_ms - client.idle_since_ms > options_.idle_timeout_s * 1000LL) {
    return "no session";
  }
  if (client.request_started_ms != 0 &&
      now_ms - client.request_started_ms > options_.request_timeout_ms) {
    return "request too slow";
  }
  if (client.write_blocked_since_ms != 0 &&
      now_ms - client.write_blocked_since_ms > options_.session_timeout_s * 1000LL) {
    return "not reading";
  }
  return nullptr;
}

std::map<const RtspStream*, int> RtspServerCore::Tick(long long now_ms) {
  const long long udp_silence_ms = options_.udp_silence_timeout_s > 0
                                       ? options_.udp_silence_timeout_s * 1000LL
                                       : std::numeric_limits<long long>::max();
  table_.Expire(now_ms, options_.session_timeout_s * 1000LL, udp_silence_ms);
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
  std::vector<std::shared_ptr<RtspSession>> senders;
  for (const auto& entry : table_.multicast().groups()) {
    senders.push_back(entry.second.sender);
  }
  for (auto& sender : senders) {
    if (sender->playing()) {
      fanout_.SendDueReports(*sender, now_ms);
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
    s.multicast = session.multicast();
    if (auto client = session.client()) {
      s.client = PlainAddress(client->remote().address()).to_string();  // IPv4 clients as IPv4
    }
    s.playing = session.playing();
    s.bytes_sent = session.bytes_sent;
    s.packets_sent = session.packets_sent;
    s.packets_dropped = session.packets_dropped;
    const RtcpReception& r = session.reception();
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
