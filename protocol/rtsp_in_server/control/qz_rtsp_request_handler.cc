#include "protocol/rtsp_in_server/control/qz_rtsp_request_handler.h"

#include <strings.h>

#include <cstdlib>

#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"
#include "protocol/rtsp_in_server/wire/qz_sdp.h"

namespace qz_rtsp_internal_server {
namespace {

constexpr const char* kPublic =
    "OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN, GET_PARAMETER, SET_PARAMETER";
constexpr int kDescribeRetryMs = 50;

// Path of an RTSP URL (absolute or not), without query.
std::string UrlPath(const std::string& uri) {
  std::string path = uri;
  const size_t scheme = path.find("://");
  if (scheme != std::string::npos) {
    const size_t slash = path.find('/', scheme + 3);
    path = slash == std::string::npos ? "/" : path.substr(slash);
  }
  const size_t query = path.find('?');
  if (query != std::string::npos) {
    path.resize(query);
  }
  return path;
}

// Splits the URL's "/name/control" into the stream name and the track control.
void SplitUrl(const std::string& uri, std::string& name, std::string& control) {
  const std::string path = UrlPath(uri);
  size_t start = 0;
  while (start < path.size() && path[start] == '/') {
    ++start;
  }
  const size_t slash = path.find('/', start);
  if (slash == std::string::npos) {
    name = path.substr(start);
    control.clear();
    return;
  }
  name = path.substr(start, slash - start);
  control = path.substr(slash + 1);
  while (!control.empty() && control.back() == '/') {
    control.pop_back();
  }
}

std::string HostForUrl(const asio::ip::address& address) {
  if (address.is_v6()) {
    const asio::ip::address_v6 v6 = address.to_v6();
    if (v6.is_v4_mapped()) {
      return asio::ip::make_address_v4(asio::ip::v4_mapped, v6).to_string();
    }
    return "[" + v6.to_string() + "]";
  }
  return address.to_string();
}

// The stream's URL with a trailing slash, echoing the authority the client
// used so that the URL works from its side.
std::string BaseUrl(const RtspClient& client, const RtspRequest& request, const std::string& name) {
  const std::string& uri = request.uri;
  const size_t scheme = uri.find("://");
  if (scheme != std::string::npos) {
    return uri.substr(0, uri.find('/', scheme + 3)) + "/" + name + "/";
  }
  return "rtsp://" + HostForUrl(client.local().address()) + ":" +
         std::to_string(client.local().port()) + "/" + name + "/";
}

// The track a URL's control part names; a SETUP of a one-track stream's own
// URL means its track. -1 when none.
int TrackOf(const std::string& control, const RtspStream& stream, bool setup) {
  int track = -1;
  if (control.compare(0, 8, "trackID=") == 0 && control.size() > 8 && control.size() < 12 &&
      control.find_first_not_of("0123456789", 8) == std::string::npos) {
    track = std::atoi(control.c_str() + 8);
  } else if (setup && control.empty() && stream.track_count() == 1) {
    track = 0;
  }
  return track < stream.track_count() ? track : -1;
}

bool ChannelFree(const RtspClient& client, int channel) {
  for (const auto& entry : client.sessions()) {
    if (entry.second->UsesChannel(channel)) {
      return false;
    }
  }
  return true;
}

}  // namespace

RtspRequestHandler::RtspRequestHandler(const QZRtspServerOptions& options,
                                       RtspSessionTable& table,
                                       RtspFanout& fanout,
                                       Env env)
    : options_(options),
      auth_(options.auth_user,
            options.auth_password,
            options.auth_realm,
            options.allow_basic_auth,
            options.auth_nonce_lifetime_s * 1000LL),
      table_(table),
      fanout_(fanout),
      env_(std::move(env)) {}

void RtspRequestHandler::Reply(RtspClient& client,
                               int code,
                               const std::string& cseq,
                               Headers headers,
                               const std::string& body) {
  headers.insert(headers.begin(), {"Server", "qz-rtsp"});
  client.SendResponse(WriteRtspResponse(code, cseq, headers, body));
}

std::string RtspRequestHandler::SessionHeader(const RtspSession& session) const {
  RtspSessionHeader header;
  header.id = session.id();
  header.timeout_s = options_.session_timeout_s;
  return WriteRtspSession(header);
}

std::shared_ptr<RtspSession> RtspRequestHandler::SessionOf(RtspClient& client,
                                                           const RtspRequest& request,
                                                           bool* unknown) const {
  *unknown = false;
  const std::string* header = request.Header("Session");
  RtspSessionHeader session;
  if (header == nullptr) {
    return nullptr;
  }
  if (!ParseRtspSession(*header, session)) {
    *unknown = true;
    return nullptr;
  }
  auto it = client.sessions().find(session.id);
  if (it == client.sessions().end()) {
    *unknown = true;  // unknown, expired, or another connection's
    return nullptr;
  }
  return it->second;
}

void RtspRequestHandler::Handle(RtspClient& client, const RtspRequest& request) {
  if (request.HeaderCount("CSeq") != 1) {
    // Without one CSeq answers cannot be matched to requests: such a client
    // is broken, so it gets its answer and the connection ends.
    Reply(client, 400, "");
    client.CloseAfterWrite();
    return;
  }
  const std::string cseq = *request.Header("CSeq");
  if (request.version != "RTSP/1.0") {
    Reply(client, 505, cseq);
    return;
  }
  if (client.over_limit) {
    env_.count_refused();
    Reply(client, 503, cseq, {{"Retry-After", "5"}});
    client.CloseAfterWrite();
    return;
  }
  // This server implements no option tags: any it is required to honour is
  // refused by name (RFC 2326 12.32), rather than silently ignored.
  std::vector<std::string> unsupported;
  for (const auto& header : request.headers) {
    if (strcasecmp(header.first.c_str(), "Require") == 0) {
      for (std::string& tag : ParseRtspTokenList(header.second)) {
        unsupported.push_back(std::move(tag));
      }
    }
  }
  if (!unsupported.empty()) {
    Reply(client, 551, cseq, {{"Unsupported", WriteRtspTokenList(unsupported)}});
    return;
  }
  const std::string& method = request.method;
  const RtspAuthenticator::Verdict verdict = method == "OPTIONS"
                                                 ? RtspAuthenticator::Verdict::kOk
                                                 : auth_.Check(request, client.auth, NowMs());
  if (verdict != RtspAuthenticator::Verdict::kOk) {
    Headers challenge;
    for (std::string& value :
         auth_.Challenges(client.auth, NowMs(), verdict == RtspAuthenticator::Verdict::kStale)) {
      challenge.emplace_back("WWW-Authenticate", std::move(value));
    }
    Reply(client, 401, cseq, challenge);
    return;
  }
  bool unknown_session = false;
  std::shared_ptr<RtspSession> session = SessionOf(client, request, &unknown_session);
  if (session) {
    session->Touch(NowMs());
  }
  if (method == "OPTIONS" || method == "GET_PARAMETER" || method == "SET_PARAMETER") {
    // Keep-alives: clients differ in which one they send.
    if (unknown_session && method != "OPTIONS") {
      Reply(client, 454, cseq);
      return;
    }
    Headers headers;
    if (method == "OPTIONS") {
      headers.emplace_back("Public", kPublic);
    }
    if (session) {
      headers.emplace_back("Session", SessionHeader(*session));
    }
    Reply(client, 200, cseq, headers);
  } else if (method == "DESCRIBE") {
    Describe(client.shared_from_this(), request, cseq, 0);
  } else if (method == "SETUP") {
    if (unknown_session) {
      Reply(client, 454, cseq);
      return;
    }
    Setup(client, request, cseq);
  } else if (method == "PLAY" || method == "PAUSE" || method == "TEARDOWN") {
    if (!session) {
      Reply(client, 454, cseq);
    } else if (method == "TEARDOWN") {
      Teardown(client, *session, request, cseq);
    } else if (session->state() == RtspSession::State::kInit) {
      Reply(client, 455, cseq, {{"Session", SessionHeader(*session)}});
    } else if (method == "PAUSE") {
      // The rest of the record being sent goes before the answer: FFmpeg
      // drops the media that reaches it between a PAUSE's answer and the
      // next PLAY's, and would decode the picture broken.
      session->Pause();
      fanout_.Pump(*session);
      if (RtspMulticastGroup* group =
              session->multicast() ? table_.multicast().Of(session->stream()) : nullptr) {
        table_.multicast().Update(*group);  // it goes on while other members play
      }
      Reply(client, 200, cseq, {{"Session", SessionHeader(*session)}});
    } else {
      Play(client, *session, request, cseq);
    }
  } else if (method == "ANNOUNCE" || method == "RECORD" || method == "REDIRECT") {
    Reply(client, 405, cseq, {{"Allow", kPublic}});
  } else {
    Reply(client, 501, cseq);
  }
}

void RtspRequestHandler::Describe(const std::shared_ptr<RtspClient>& client,
                                  const RtspRequest& request,
                                  const std::string& cseq,
                                  int waited_ms) {
  std::string name, control;
  SplitUrl(request.uri, name, control);
  std::shared_ptr<RtspStream> stream = env_.find_stream(name);
  if (!stream) {
    Reply(*client, 404, cseq);
    return;
  }
  if (!stream->piple()->IsHasAVConfig()) {
    // The stream exists but its parameter sets have not arrived yet (the
    // first key frame is on its way): wait a little before giving up.
    if (waited_ms >= options_.describe_wait_ms) {
      Reply(*client, 503, cseq, {{"Retry-After", "1"}});
      return;
    }
    env_.run_after(kDescribeRetryMs, [this, client, request, cseq, waited_ms] {
      if (!client->closed()) {
        Describe(client, request, cseq, waited_ms + kDescribeRetryMs);
      }
    });
    return;
  }
  const asio::ip::address local = client->local().address();
  const std::string sdp = BuildSdp(
      stream->Describe(),
      local.is_v6() && !local.to_v6().is_v4_mapped() ? local.to_string() : HostForUrl(local),
      static_cast<unsigned long long>(NowMs()));
  Reply(*client, 200, cseq,
        {{"Content-Type", "application/sdp"}, {"Content-Base", BaseUrl(*client, request, name)}},
        sdp);
}

int RtspRequestHandler::PickChannels(const RtspClient& client, int wanted, int track) {
  auto free_pair = [&client](int first) {
    return first >= 0 && first < 255 && ChannelFree(client, first) &&
           ChannelFree(client, first + 1);
  };
  for (int first : {wanted, track * 2}) {
    if (free_pair(first)) {
      return first;
    }
  }
  for (int first = 0; first < 255; first += 2) {
    if (free_pair(first)) {
      return first;
    }
  }
  return -1;
}

void RtspRequestHandler::Setup(RtspClient& client,
                               const RtspRequest& request,
                               const std::string& cseq) {
  const std::string* transport_header = request.Header("Transport");
  RtspTransport transport;
  // Over TLS only transports inside the connection (media must not leave it
  // in clear); with multicast on, a multicast transport qualifies too.
  const bool parsed =
      transport_header != nullptr &&
      (client.encrypted     ? ParseRtspTcpTransport(*transport_header, transport)
       : options_.multicast ? ParseRtspTransportOrMulticast(*transport_header, transport)
                            : ParseRtspTransport(*transport_header, transport));
  // Nothing this server can send to, or unicast to another than the asker.
  // A multicast transport's destination, port and ttl are not used: the
  // group's are the server's, named in the answer.
  if (!parsed || (!transport.multicast && transport.has_destination())) {
    Reply(client, 461, cseq);
    return;
  }
  std::string name, control;
  SplitUrl(request.uri, name, control);
  std::shared_ptr<RtspStream> stream = env_.find_stream(name);
  const int track = stream ? TrackOf(control, *stream, true) : -1;
  if (track < 0) {
    Reply(client, 404, cseq);
    return;
  }
  bool unknown = false;
  std::shared_ptr<RtspSession> session = SessionOf(client, request, &unknown);
  if (session && session->shared_stream() != stream) {
    Reply(client, 459, cseq);
    return;
  }
  if (session && session->tracks()[static_cast<size_t>(track)].setup) {
    Reply(client, 455, cseq);
    return;
  }
  if (session && session->multicast() != transport.multicast) {
    Reply(client, 461, cseq);  // a session's tracks all go to its group, or none
    return;
  }
  if (transport.multicast && !table_.multicast().Available(*stream)) {
    Reply(client, 453, cseq);  // every group address of the range is taken
    return;
  }
  if (!session &&
      static_cast<int>(client.sessions().size()) >= options_.max_sessions_per_connection) {
    Reply(client, 453, cseq);
    return;
  }
  int channel = -1;
  if (transport.kind == RtspTransport::Kind::kTcp) {
    channel = PickChannels(client, transport.interleaved_rtp, track);
    if (channel < 0) {
      Reply(client, 453, cseq);  // 128 pairs in use on one connection
      return;
    }
  }
  if (!session) {
    session = table_.Create(client.shared_from_this(), stream, NowMs());
  }
  RtspTransport reply;
  reply.kind = transport.kind;
  reply.has_ssrc = true;
  reply.ssrc = stream->TrackSsrc(track);
  if (transport.kind == RtspTransport::Kind::kTcp) {
    session->SetupTcp(track, channel);
    reply.interleaved_rtp = channel;
    reply.interleaved_rtcp = channel + 1;
  } else if (transport.multicast) {
    const RtspMulticastGroup& group = table_.SetupMulticast(*session, track);
    reply.multicast = true;
    reply.destination = group.address.to_string();
    reply.multicast_rtp_port = group.Rtp(track).port();
    reply.multicast_rtcp_port = group.Rtcp(track).port();
    reply.ttl = table_.multicast().config().ttl;
  } else {
    const asio::ip::address address = client.remote().address();
    table_.SetupUdp(
        *session, track,
        asio::ip::udp::endpoint(address, static_cast<uint16_t>(transport.client_rtp_port)),
        asio::ip::udp::endpoint(address, static_cast<uint16_t>(transport.client_rtcp_port)));
    reply.client_rtp_port = transport.client_rtp_port;
    reply.client_rtcp_port = transport.client_rtcp_port;
    reply.server_rtp_port = env_.udp_rtp_port;
    reply.server_rtcp_port = env_.udp_rtp_port + 1;
  }
  Reply(client, 200, cseq,
        {{"Transport", WriteRtspTransport(reply)}, {"Session", SessionHeader(*session)}});
}

void RtspRequestHandler::Play(RtspClient& client,
                              RtspSession& session,
                              const RtspRequest& request,
                              const std::string& cseq) {
  const bool starts = !session.playing();
  if (starts) {
    session.Resumed(NowMs());
  }
  bool wants_key_frame = false;
  const std::string base_url = BaseUrl(client, request, session.stream().name());
  const std::vector<RtpInfoEntry> info =
      session.multicast()
          ? table_.multicast().Play(session, base_url, options_.gop_cache, &wants_key_frame)
          : session.Play(base_url, options_.gop_cache, &wants_key_frame);
  if (wants_key_frame) {
    fanout_.RequestKeyFrame(session.stream());
  }
  RtspRange range;
  Headers headers = {{"Session", SessionHeader(session)}, {"Range", WriteRtspRange(range)}};
  if (!info.empty()) {
    headers.emplace_back("RTP-Info", WriteRtpInfo(info));
  }
  Reply(client, 200, cseq, headers);
  // A multicast member's media and reports are its group's: a newcomer
  // gets the group's sender reports at once, like a unicast viewer.
  RtspMulticastGroup* group =
      session.multicast() ? table_.multicast().Of(session.stream()) : nullptr;
  RtspSession& sender = group != nullptr ? *group->sender : session;
  if (starts) {
    fanout_.StartReports(sender);
  }
  fanout_.Pump(sender);
}

void RtspRequestHandler::Teardown(RtspClient& client,
                                  RtspSession& session,
                                  const RtspRequest& request,
                                  const std::string& cseq) {
  // A track's URL ends that track only (VLC switching a track off); the
  // session ends with its last track or on the stream's URL.
  std::string name, control;
  SplitUrl(request.uri, name, control);
  const int track = TrackOf(control, session.stream(), false);
  const std::string header = SessionHeader(session);
  if (track < 0 || !table_.TeardownTrack(session, track)) {
    table_.Destroy(session.id());
  }
  Reply(client, 200, cseq, {{"Session", header}});
}

}  // namespace qz_rtsp_internal_server
