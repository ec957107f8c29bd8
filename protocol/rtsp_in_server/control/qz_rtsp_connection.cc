#include "protocol/rtsp_in_server/control/qz_rtsp_connection.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>

#include "protocol/rtsp_in_server/control/qz_rtsp_server_impl.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"
#include "protocol/rtsp_in_server/wire/qz_sdp.h"

namespace qz_rtsp_internal_server {
namespace {

constexpr const char* kPublic =
    "OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN, GET_PARAMETER, SET_PARAMETER";
constexpr size_t kMaxControlBytes = 256 * 1024;
constexpr size_t kMaxPacketsPerWrite = 64;  // one sendmsg() takes up to 64 buffers in Asio
constexpr size_t kMaxBytesPerWrite = 256 * 1024;

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

// Splits "/name/control" into the stream name and the track control.
void SplitPath(const std::string& path, std::string& name, std::string& control) {
  size_t start = 0;
  while (start < path.size() && path[start] == '/') {
    ++start;
  }
  const size_t slash = path.find('/', start);
  if (slash == std::string::npos) {
    name = path.substr(start);
    control.clear();
  } else {
    name = path.substr(start, slash - start);
    control = path.substr(slash + 1);
    while (!control.empty() && control.back() == '/') {
      control.pop_back();
    }
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

RtspLimits ParserLimits(const QZRtspServerOptions& options) {
  RtspLimits limits;
  limits.max_header_bytes = options.max_request_bytes;
  limits.max_line = std::min(limits.max_line, options.max_request_bytes);
  limits.max_body = options.max_request_bytes;
  limits.max_headers = options.max_headers;
  return limits;
}

std::string Hex32(uint32_t v) {
  char buf[9];
  snprintf(buf, sizeof(buf), "%08X", v);
  return buf;
}

}  // namespace

RtspConnection::RtspConnection(QZRtspServer::Impl& server,
                               asio::ip::tcp::socket socket,
                               bool over_limit)
    : server_(server),
      socket_(std::move(socket)),
      over_limit_(over_limit),
      parser_(ParserLimits(server.options())) {
  asio::error_code ec;
  remote_ = socket_.remote_endpoint(ec);
  local_ = socket_.local_endpoint(ec);
  socket_.set_option(asio::ip::tcp::no_delay(true), ec);
  // Writes are tried at once and never block; see KickWrite().
  socket_.non_blocking(true, ec);
  last_activity_ms_ = server_.NowMs();
}

void RtspConnection::Start() {
  DoRead();
}

void RtspConnection::Close() {
  if (closed_) {
    return;
  }
  closed_ = true;
  asio::error_code ec;
  socket_.shutdown(asio::ip::tcp::socket::shutdown_both, ec);
  socket_.close(ec);
  if (describe_timer_) {
    describe_timer_->cancel();
  }
  std::vector<std::string> ids;
  for (const auto& s : sessions_) {
    ids.push_back(s.first);
  }
  for (const std::string& id : ids) {
    server_.DestroySession(id);
  }
  sessions_.clear();
  server_.RemoveConnection(this);
}

void RtspConnection::CloseAfterWrite() {
  close_after_write_ = true;
  KickWrite();
}

void RtspConnection::DoRead() {
  auto self = shared_from_this();
  socket_.async_read_some(asio::buffer(read_buffer_),
                          [this, self](const asio::error_code& ec, size_t n) {
                            if (ec || closed_) {
                              Close();
                              return;
                            }
                            if (close_after_write_) {
                              return;  // no more requests from a connection being closed
                            }
                            last_activity_ms_ = server_.NowMs();
                            parser_.Feed(read_buffer_.data(), n);
                            for (;;) {
                              const RtspParseResult result = parser_.Next();
                              if (result == RtspParseResult::kNeedMore) {
                                break;
                              }
                              if (result == RtspParseResult::kBadRequest) {
                                server_.CountRefused();
                                Reply(400, "", {{"Connection", "close"}});
                                CloseAfterWrite();
                                return;
                              }
                              request_started_ms_ = 0;
                              if (result == RtspParseResult::kInterleaved) {
                                OnInterleaved(parser_.channel());
                              } else {
                                OnRequest(parser_.request());
                              }
                              if (closed_) {
                                return;
                              }
                            }
                            if (parser_.buffered() == 0) {
                              request_started_ms_ = 0;
                            } else if (request_started_ms_ == 0) {
                              request_started_ms_ = last_activity_ms_;
                            }
                            DoRead();
                          });
}

void RtspConnection::OnInterleaved(uint8_t channel) {
  // RTCP receiver reports from a TCP client keep its session alive; frames
  // on channels no session uses are ignored.
  for (auto& entry : sessions_) {
    RtspSession& session = *entry.second;
    for (const RtspSessionTrack& t : session.tracks) {
      if (t.setup && t.tcp && (channel == t.rtp_channel || channel == t.rtcp_channel)) {
        session.last_activity_ms = server_.NowMs();
      }
    }
  }
}

void RtspConnection::Reply(int code,
                           const std::string& cseq,
                           std::vector<std::pair<std::string, std::string>> headers,
                           const std::string& body) {
  headers.insert(headers.begin(), {"Server", "qz-rtsp"});
  std::string response = WriteRtspResponse(code, cseq, headers, body);
  control_bytes_ += response.size();
  control_.push_back(std::move(response));
  if (control_bytes_ > kMaxControlBytes) {
    server_.CountRefused();
    Close();  // a client that sends requests but never reads the answers
    return;
  }
  KickWrite();
}

bool RtspConnection::SendInterleaved(uint8_t channel, const std::vector<uint8_t>& rtcp) {
  if (closed_ || rtcp.empty() || control_bytes_ > kMaxControlBytes / 2) {
    return false;
  }
  std::string frame(4, '\0');
  frame[0] = '$';
  frame[1] = static_cast<char>(channel);
  frame[2] = static_cast<char>((rtcp.size() >> 8) & 0xFF);
  frame[3] = static_cast<char>(rtcp.size() & 0xFF);
  frame.append(reinterpret_cast<const char*>(rtcp.data()), rtcp.size());
  control_bytes_ += frame.size();
  control_.push_back(std::move(frame));
  return true;
}

std::shared_ptr<RtspSession> RtspConnection::SessionOf(const RtspRequest& request, bool* unknown) {
  *unknown = false;
  const std::string* header = request.Header("Session");
  if (header == nullptr) {
    return nullptr;
  }
  const std::string id = header->substr(0, header->find(';'));
  auto it = sessions_.find(id);
  if (it == sessions_.end()) {
    *unknown = true;  // unknown, expired, or another connection's
    return nullptr;
  }
  return it->second;
}

std::string RtspConnection::BaseUrl(const RtspRequest& request, const std::string& stream) const {
  // Echo the authority the client used, so the URL works from its side.
  const std::string& uri = request.uri;
  const size_t scheme = uri.find("://");
  if (scheme != std::string::npos) {
    const size_t slash = uri.find('/', scheme + 3);
    return uri.substr(0, slash) + "/" + stream + "/";
  }
  return "rtsp://" + HostForUrl(local_.address()) + ":" + std::to_string(local_.port()) + "/" +
         stream + "/";
}

int RtspConnection::TrackOf(const std::string& control, const RtspStream& stream, bool setup) {
  int track = -1;
  if (control.compare(0, 8, "trackID=") == 0 && control.size() > 8 && control.size() < 12 &&
      control.find_first_not_of("0123456789", 8) == std::string::npos) {
    track = std::atoi(control.c_str() + 8);
  } else if (setup && control.empty() && stream.track_count() == 1) {
    track = 0;
  }
  return track < stream.track_count() ? track : -1;
}

bool RtspConnection::ChannelFree(int channel) const {
  for (const auto& entry : sessions_) {
    for (const RtspSessionTrack& t : entry.second->tracks) {
      if (t.setup && t.tcp && (t.rtp_channel == channel || t.rtcp_channel == channel)) {
        return false;
      }
    }
  }
  return true;
}

void RtspConnection::OnRequest(const RtspRequest& request) {
  if (request.HeaderCount("CSeq") != 1) {
    // Without one CSeq answers cannot be matched to requests: such a client
    // is broken, so it gets its answer and the connection ends.
    Reply(400, "");
    CloseAfterWrite();
    return;
  }
  const std::string cseq = *request.Header("CSeq");
  if (request.version != "RTSP/1.0") {
    Reply(505, cseq);
    return;
  }
  if (over_limit_) {
    server_.CountRefused();
    Reply(503, cseq, {{"Retry-After", "5"}});
    CloseAfterWrite();
    return;
  }
  // This server implements no option tags: any it is required to honour
  // is refused by name (RFC 2326 12.32), rather than silently ignored.
  std::vector<std::string> unsupported;
  for (const auto& header : request.headers) {
    if (strcasecmp(header.first.c_str(), "Require") == 0) {
      for (std::string& tag : ParseRtspTokenList(header.second)) {
        unsupported.push_back(std::move(tag));
      }
    }
  }
  if (!unsupported.empty()) {
    Reply(551, cseq, {{"Unsupported", WriteRtspTokenList(unsupported)}});
    return;
  }
  const std::string& method = request.method;
  if (method != "OPTIONS" && !server_.auth().Check(request, server_.NowMs())) {
    std::vector<std::pair<std::string, std::string>> challenge = {
        {"WWW-Authenticate", server_.auth().DigestChallenge(server_.NowMs())}};
    if (server_.auth().allow_basic()) {
      challenge.emplace_back("WWW-Authenticate", server_.auth().BasicChallenge());
    }
    Reply(401, cseq, challenge);
    return;
  }
  bool unknown_session = false;
  std::shared_ptr<RtspSession> session = SessionOf(request, &unknown_session);
  if (session) {
    session->last_activity_ms = server_.NowMs();
  }
  const std::string session_header =
      session ? session->id + ";timeout=" + std::to_string(server_.options().session_timeout_s)
              : std::string();

  if (method == "OPTIONS" || method == "GET_PARAMETER" || method == "SET_PARAMETER") {
    // Keep-alives: clients differ in which one they send.
    if (unknown_session && method != "OPTIONS") {
      Reply(454, cseq);
      return;
    }
    std::vector<std::pair<std::string, std::string>> headers;
    if (method == "OPTIONS") {
      headers.emplace_back("Public", kPublic);
    }
    if (session) {
      headers.emplace_back("Session", session_header);
    }
    Reply(200, cseq, headers);
    return;
  }
  if (method == "DESCRIBE") {
    HandleDescribe(request, cseq, 0);
    return;
  }
  if (method == "SETUP") {
    if (unknown_session) {
      Reply(454, cseq);
      return;
    }
    HandleSetup(request, cseq);
    return;
  }
  if (method == "PLAY" || method == "PAUSE" || method == "TEARDOWN") {
    if (!session) {
      Reply(unknown_session || request.Header("Session") == nullptr ? 454 : 454, cseq);
      return;
    }
    if (method == "TEARDOWN") {
      // A track's URL ends that track only (VLC switching a track off);
      // the session ends with its last track or on the stream's URL.
      std::string name, control;
      SplitPath(UrlPath(request.uri), name, control);
      const int track = TrackOf(control, *session->stream, false);
      if (track >= 0 && session->tracks[track].setup && session->SetupTrackCount() > 1) {
        session->tracks[track] = RtspSessionTrack();
        Reply(200, cseq, {{"Session", session_header}});
        return;
      }
      const std::string id = session->id;
      Reply(200, cseq, {{"Session", session_header}});
      server_.DestroySession(id);
      sessions_.erase(id);
      return;
    }
    if (session->state == RtspSession::State::kInit) {
      Reply(455, cseq, {{"Session", session_header}});
      return;
    }
    if (method == "PAUSE") {
      session->SetState(RtspSession::State::kReady);
      Reply(200, cseq, {{"Session", session_header}});
      return;
    }
    HandlePlay(*session, request, cseq);
    return;
  }
  if (method == "ANNOUNCE" || method == "RECORD" || method == "REDIRECT") {
    Reply(405, cseq, {{"Allow", kPublic}});
    return;
  }
  Reply(501, cseq);
}

std::shared_ptr<RtspStream> RtspConnection::StreamOf(const RtspRequest& request,
                                                     const std::string& cseq,
                                                     std::string& name,
                                                     std::string& control) {
  SplitPath(UrlPath(request.uri), name, control);
  std::shared_ptr<RtspStream> stream = server_.FindStream(name);
  if (!stream) {
    Reply(404, cseq);
  }
  return stream;
}

void RtspConnection::HandleDescribe(const RtspRequest& request,
                                    const std::string& cseq,
                                    int waited_ms) {
  std::string name, control;
  std::shared_ptr<RtspStream> stream = StreamOf(request, cseq, name, control);
  if (!stream) {
    return;
  }
  if (!stream->piple()->IsHasAVConfig()) {
    // The stream exists but its parameter sets have not arrived yet (the
    // first key frame is on its way): wait a little before giving up.
    if (waited_ms >= server_.options().describe_wait_ms) {
      Reply(503, cseq, {{"Retry-After", "1"}});
      return;
    }
    describe_timer_ =
        std::make_shared<asio::steady_timer>(server_.io(), std::chrono::milliseconds(50));
    auto self = shared_from_this();
    RtspRequest copy = request;
    describe_timer_->async_wait([this, self, copy, cseq, waited_ms](const asio::error_code& ec) {
      if (!ec && !closed_) {
        HandleDescribe(copy, cseq, waited_ms + 50);
      }
    });
    return;
  }
  const std::string sdp =
      BuildSdp(stream->Describe(),
               local_.address().is_v6() && !local_.address().to_v6().is_v4_mapped()
                   ? local_.address().to_string()
                   : HostForUrl(local_.address()),
               static_cast<unsigned long long>(server_.NowMs()));
  Reply(200, cseq, {{"Content-Type", "application/sdp"}, {"Content-Base", BaseUrl(request, name)}},
        sdp);
}

void RtspConnection::HandleSetup(const RtspRequest& request, const std::string& cseq) {
  const std::string* transport_header = request.Header("Transport");
  RtspTransport transport;
  if (transport_header == nullptr || !ParseRtspTransport(*transport_header, transport) ||
      transport.has_destination()) {
    Reply(461, cseq);
    return;
  }
  std::string name, control;
  std::shared_ptr<RtspStream> stream = StreamOf(request, cseq, name, control);
  if (!stream) {
    return;
  }
  const int track = TrackOf(control, *stream, true);
  if (track < 0) {
    Reply(404, cseq);
    return;
  }
  bool unknown = false;
  std::shared_ptr<RtspSession> session = SessionOf(request, &unknown);
  if (session) {
    if (session->stream != stream) {
      Reply(459, cseq);
      return;
    }
    if (session->tracks[track].setup) {
      Reply(455, cseq);
      return;
    }
  } else {
    if (static_cast<int>(sessions_.size()) >= server_.options().max_sessions_per_connection) {
      Reply(453, cseq);
      return;
    }
    session = server_.CreateSession(shared_from_this(), stream);
    sessions_[session->id] = session;
  }
  RtspSessionTrack& t = session->tracks[track];
  const std::string ssrc = Hex32(stream->TrackSsrc(track));
  std::string reply_transport;
  if (transport.kind == RtspTransport::Kind::kTcp) {
    // The pair the client asks for when free on this connection, else the
    // track's usual pair (whose bytes every client shares), else the first
    // free pair; the reply says which.
    int first = -1;
    for (int wanted : {transport.interleaved_rtp, track * 2}) {
      if (wanted >= 0 && wanted < 255 && ChannelFree(wanted) && ChannelFree(wanted + 1)) {
        first = wanted;
        break;
      }
    }
    for (int c = 0; first < 0 && c < 255; c += 2) {
      if (ChannelFree(c) && ChannelFree(c + 1)) {
        first = c;
      }
    }
    if (first < 0) {
      Reply(453, cseq);  // 128 pairs in use on one connection
      return;
    }
    t.tcp = true;
    t.rtp_channel = first;
    t.rtcp_channel = first + 1;
    reply_transport = "RTP/AVP/TCP;unicast;interleaved=" + std::to_string(first) + "-" +
                      std::to_string(first + 1) + ";ssrc=" + ssrc;
  } else {
    t.tcp = false;
    asio::ip::address address = remote_.address();
    t.rtp_endpoint =
        asio::ip::udp::endpoint(address, static_cast<uint16_t>(transport.client_rtp_port));
    t.rtcp_endpoint =
        asio::ip::udp::endpoint(address, static_cast<uint16_t>(transport.client_rtcp_port));
    reply_transport = "RTP/AVP;unicast;client_port=" + std::to_string(transport.client_rtp_port) +
                      "-" + std::to_string(transport.client_rtcp_port) +
                      ";server_port=" + std::to_string(server_.udp_rtp_port()) + "-" +
                      std::to_string(server_.udp_rtp_port() + 1) + ";ssrc=" + ssrc;
  }
  t.setup = true;
  if (session->state != RtspSession::State::kPlaying) {
    session->SetState(RtspSession::State::kReady);
  }
  Reply(200, cseq,
        {{"Transport", reply_transport},
         {"Session",
          session->id + ";timeout=" + std::to_string(server_.options().session_timeout_s)}});
}

void RtspConnection::HandlePlay(RtspSession& session,
                                const RtspRequest& request,
                                const std::string& cseq) {
  RtspStream& stream = *session.stream;
  const std::string session_header =
      session.id + ";timeout=" + std::to_string(server_.options().session_timeout_s);
  if (session.state == RtspSession::State::kPlaying) {
    // Tracks set up while playing start now, video at its next key frame;
    // the others go on as they were.
    std::string rtp_info;
    const std::string base = BaseUrl(request, stream.name());
    for (int t = 0; t < stream.track_count(); ++t) {
      RtspSessionTrack& track = session.tracks[t];
      if (!track.setup || track.active) {
        continue;
      }
      track.active = true;
      track.wait_key = t == stream.video_track();
      uint16_t seq = 0;
      uint32_t rtp_time = 0;
      if (track.wait_key) {
        server_.RequestKeyFrame(stream);
        continue;  // which packet starts it is not known yet: no RTP-Info
      }
      // The track's next packet is what the client gets first; its RTP time
      // is not known before it is built.
      const bool held = stream.FirstPacketOf(t, session.read_index, seq, rtp_time);
      rtp_info += std::string(rtp_info.empty() ? "" : ",") + "url=" + base +
                  "trackID=" + std::to_string(t) +
                  ";seq=" + std::to_string(held ? seq : stream.NextSeq(t)) +
                  (held ? ";rtptime=" + std::to_string(rtp_time) : std::string());
    }
    std::vector<std::pair<std::string, std::string>> headers = {{"Session", session_header},
                                                                {"Range", "npt=0.000-"}};
    if (!rtp_info.empty()) {
      headers.emplace_back("RTP-Info", rtp_info);
    }
    Reply(200, cseq, headers);
    server_.Pump(session);
    return;
  }
  // Start at the latest key frame held (a picture at once); without one,
  // hold video back until the next key frame arrives.
  const bool video_setup = stream.has_video() && session.tracks[0].setup;
  session.waiting_key = false;
  if (video_setup) {
    if (stream.has_key_frame() && server_.options().gop_cache) {
      session.read_index = stream.last_key_index();
    } else {
      session.read_index = stream.end_index();
      session.waiting_key = true;
      server_.RequestKeyFrame(stream);
    }
  } else {
    session.read_index = stream.end_index();
  }
  std::string rtp_info;
  if (!session.waiting_key) {
    std::string base = BaseUrl(request, stream.name());
    for (int t = 0; t < stream.track_count(); ++t) {
      uint16_t seq = 0;
      uint32_t rtp_time = 0;
      if (!session.tracks[t].setup || !stream.FirstPacketOf(t, session.read_index, seq, rtp_time)) {
        continue;
      }
      if (!rtp_info.empty()) {
        rtp_info += ",";
      }
      rtp_info += "url=" + base + "trackID=" + std::to_string(t) + ";seq=" + std::to_string(seq) +
                  ";rtptime=" + std::to_string(rtp_time);
    }
  }
  std::vector<std::pair<std::string, std::string>> headers = {{"Session", session_header},
                                                              {"Range", "npt=0.000-"}};
  if (!rtp_info.empty()) {
    headers.emplace_back("RTP-Info", rtp_info);
  }
  Reply(200, cseq, headers);
  for (RtspSessionTrack& track : session.tracks) {
    track.active = track.setup;
    track.wait_key = false;
  }
  session.SetState(RtspSession::State::kPlaying);
  server_.SendSenderReports(session, -1);
  server_.Pump(session);
}

bool RtspConnection::GatherMedia(std::vector<asio::const_buffer>& buffers) {
  for (auto& entry : sessions_) {
    RtspSession& session = *entry.second;
    if (session.state != RtspSession::State::kPlaying || session.waiting_key ||
        !session.HasTcpTrack()) {
      continue;
    }
    server_.Resync(session);
    RtspStream& stream = *session.stream;
    uint64_t index = session.read_index;
    size_t bytes = 0;
    while (index < stream.end_index() && buffers.size() + 2 <= kMaxPacketsPerWrite &&
           bytes < kMaxBytesPerWrite) {
      const std::shared_ptr<RtpPacket>& packet = stream.At(index);
      RtspSessionTrack& track = session.tracks[packet->track];
      if (track.Delivers(packet->key_frame_start)) {
        if (track.tcp) {
          if (packet->TcpData()[1] == track.rtp_channel) {
            buffers.emplace_back(packet->TcpData(), packet->TcpSize());
          } else {
            // Another channel than the packet's own: a header of its own in
            // front of the shared RTP bytes.
            uint8_t* header = interleaved_headers_[writing_packets_.size()].data();
            header[0] = '$';
            header[1] = static_cast<uint8_t>(track.rtp_channel);
            header[2] = static_cast<uint8_t>(packet->UdpSize() >> 8);
            header[3] = static_cast<uint8_t>(packet->UdpSize() & 0xFF);
            buffers.emplace_back(header, kInterleavedHeaderSize);
            buffers.emplace_back(packet->UdpData(), packet->UdpSize());
          }
          writing_packets_.push_back(packet);
          bytes += packet->TcpSize();
        } else {
          server_.SendUdp(session, packet->track, packet->UdpData(), packet->UdpSize(), false);
        }
      }
      ++index;
    }
    session.read_index = index;
    if (!buffers.empty()) {
      session.writing = true;
      session.write_end = index;
      writing_session_ = entry.second;
      return true;
    }
  }
  return false;
}

void RtspConnection::SizeSendBuffer(int ms) {
  constexpr size_t kMinSendBuffer = 64 * 1024;
  constexpr size_t kMaxSendBuffer = 8 * 1024 * 1024;
  size_t rate = 0;
  for (const auto& entry : sessions_) {
    const RtspSession& session = *entry.second;
    if (session.state == RtspSession::State::kPlaying && session.HasTcpTrack()) {
      rate += session.stream->byte_rate();
    }
  }
  if (ms <= 0 || rate == 0 || closed_) {
    return;
  }
  const size_t want =
      std::clamp(rate * static_cast<size_t>(ms) / 1000, kMinSendBuffer, kMaxSendBuffer);
  if (send_buffer_bytes_ != 0 && want * 4 > send_buffer_bytes_ * 3 &&
      want * 4 < send_buffer_bytes_ * 5) {
    return;  // within 25 %
  }
  asio::error_code ec;
  // Linux doubles the value for its bookkeeping; what it reports back is
  // not what it holds of payload, so the value asked for is remembered.
  socket_.set_option(asio::socket_base::send_buffer_size(static_cast<int>(want)), ec);
  if (!ec) {
    send_buffer_bytes_ = want;
  }
}

void RtspConnection::KickWrite() {
  auto self = shared_from_this();  // a failed write closes (and may release) this connection
  while (!writing_ && !closed_) {
    std::vector<asio::const_buffer> buffers;
    if (!control_.empty()) {
      writing_control_ = std::move(control_.front());
      control_.pop_front();
      control_bytes_ -= writing_control_.size();
      buffers.emplace_back(asio::buffer(writing_control_));
    } else if (close_after_write_) {
      Close();
      return;
    } else if (!GatherMedia(buffers)) {
      return;
    }
    writing_ = true;
    // Most writes fit into the socket's buffer: hand them to the kernel now,
    // in one sendmsg(), without a round trip through the event loop. Only
    // what does not fit waits for the socket to drain.
    const size_t total = asio::buffer_size(buffers);
    asio::error_code ec;
    size_t n = socket_.write_some(buffers, ec);
    if (ec == asio::error::would_block || ec == asio::error::try_again) {
      ec.clear();
      n = 0;
    }
    if (ec || n == total) {
      FinishWrite(ec, n);
      continue;
    }
    std::vector<asio::const_buffer> rest;
    size_t skip = n;
    for (const asio::const_buffer& b : buffers) {
      if (skip >= b.size()) {
        skip -= b.size();
        continue;
      }
      rest.push_back(b + skip);
      skip = 0;
    }
    asio::async_write(socket_, rest, [this, self, n](const asio::error_code& error, size_t m) {
      FinishWrite(error, n + m);
      KickWrite();
    });
    return;
  }
}

void RtspConnection::FinishWrite(const asio::error_code& ec, size_t bytes) {
  writing_ = false;
  writing_control_.clear();
  if (writing_session_ != nullptr) {
    RtspSession& session = *writing_session_;
    session.writing = false;
    if (!ec) {
      server_.CountSent(session, bytes, writing_packets_.size());
      server_.CountTcpWrite(session);
      const uint64_t before = session.written_index;
      session.written_index = session.write_end;
      RtspStream& stream = *session.stream;
      session.live = session.live || session.written_index >= stream.end_index();
      if (session.live && stream.has_unwritten() && before < stream.first_unwritten_end()) {
        server_.ScheduleSettle(stream);
      }
    }
    session.last_activity_ms = server_.NowMs();
    writing_session_ = nullptr;
  }
  writing_packets_.clear();
  if (ec) {
    Close();
  }
}

}  // namespace qz_rtsp_internal_server
