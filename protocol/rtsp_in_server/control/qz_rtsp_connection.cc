#include "protocol/rtsp_in_server/control/qz_rtsp_connection.h"

#include <algorithm>
#include <set>

#include "protocol/rtsp_in_server/net/qz_socket_setup.h"
#include "protocol/rtsp_in_server/rtp/qz_rtcp.h"

namespace qz_rtsp_internal_server {
namespace {

constexpr size_t kMaxControlBytes = 256 * 1024;

RtspLimits ParserLimits(const QZRtspServerOptions& options) {
  RtspLimits limits;
  limits.max_header_bytes = options.max_request_bytes;
  limits.max_line = std::min(limits.max_line, options.max_request_bytes);
  limits.max_body = options.max_request_bytes;
  limits.max_headers = options.max_headers;
  return limits;
}

asio::ip::tcp::endpoint Local(const asio::ip::tcp::socket& socket) {
  asio::error_code ec;
  return socket.local_endpoint(ec);
}

asio::ip::tcp::endpoint Remote(const asio::ip::tcp::socket& socket) {
  asio::error_code ec;
  return socket.remote_endpoint(ec);
}

}  // namespace

RtspConnection::RtspConnection(RtspServerCore& core,
                               std::unique_ptr<RtspLink> link,
                               bool over_limit,
                               bool sniff,
                               std::function<void(RtspConnection*)> on_closed)
    : RtspClient(Local(link->socket()), Remote(link->socket())),
      core_(core),
      link_(std::move(link)),
      on_closed_(std::move(on_closed)),
      parser_(ParserLimits(core.options())),
      mode_(sniff ? Mode::kSniff : Mode::kRtsp) {
  this->over_limit = over_limit;
  asio::error_code ec;
  link_->socket().set_option(asio::ip::tcp::no_delay(true), ec);
  accepted_ms = core_.NowMs();
  idle_since_ms = accepted_ms;
}

void RtspConnection::Start() {
  // The request clock runs through the handshake: a client that stalls in
  // it holds its slot no longer than one that stalls in a request.
  request_started_ms = accepted_ms;
  auto self = shared_from_this();
  link_->Handshake([this, self](const asio::error_code& ec) {
    if (closed_) {
      return;
    }
    if (ec) {
      core_.CountRefused();  // not TLS, an old version, no common cipher
      Close();
      return;
    }
    request_started_ms = 0;
    DoRead();
  });
}

void RtspConnection::Close() {
  if (closed_) {
    return;
  }
  closed_ = true;
  link_->Close();
  if (!cookie_.empty()) {
    core_.tunnels().Forget(cookie_, this);
  }
  core_.ClientClosed(*this);
  // The halves of a tunnel close together: a GET without its POST could
  // not be told anything more, a POST without its GET not answered.
  tunnel_output = nullptr;
  if (std::shared_ptr<RtspConnection> peer = std::move(tunnel_peer_)) {
    peer->Close();
  }
  if (on_closed_) {
    on_closed_(this);
  }
}

void RtspConnection::CloseAfterWrite() {
  close_after_write_ = true;
  KickWrite();
}

void RtspConnection::DoRead() {
  auto self = shared_from_this();
  link_->ReadSome(asio::buffer(read_buffer_), [this, self](const asio::error_code& ec, size_t n) {
    if (ec || closed_) {
      Close();
      return;
    }
    if (close_after_write_) {
      return;  // no more requests from a connection being closed
    }
    OnRead(n);
    if (!closed_ && mode_ != Mode::kTunnelWait) {
      DoRead();
    }
  });
}

void RtspConnection::OnRead(size_t n) {
  const long long now = core_.NowMs();
  const char* data = read_buffer_.data();
  switch (mode_) {
    case Mode::kSniff: {
      pending_.append(data, n);
      const TunnelSniff kind = SniffTunnel(pending_.data(), pending_.size());
      if (kind == TunnelSniff::kNeedMore) {
        request_started_ms = request_started_ms == 0 ? now : request_started_ms;
        return;
      }
      std::string first;
      first.swap(pending_);
      if (kind == TunnelSniff::kRtsp) {
        mode_ = Mode::kRtsp;
        parser_.Feed(first.data(), first.size());
        ParseRequests(*this, now);
      } else {
        mode_ = Mode::kHttpHead;
        head_.reset(new HttpTunnelHeadParser(core_.options().max_request_bytes));
        ReadHttpHead(first.data(), first.size(), now);
      }
      return;
    }
    case Mode::kRtsp:
      parser_.Feed(data, n);
      ParseRequests(*this, now);
      return;
    case Mode::kHttpHead:
      ReadHttpHead(data, n, now);
      return;
    case Mode::kTunnelPost:
      ReadTunnelled(data, n, now);
      return;
    case Mode::kTunnelGet:
    case Mode::kTunnelWait:
      return;  // a GET's client has nothing more to say; a waiting POST is not read
  }
}

void RtspConnection::ParseRequests(RtspConnection& target, long long now) {
  for (;;) {
    if (target.closed_ || target.close_after_write_) {
      return;  // no more requests for a connection being closed
    }
    const RtspParseResult result = parser_.Next();
    if (result == RtspParseResult::kNeedMore) {
      break;
    }
    if (result == RtspParseResult::kBadRequest) {
      core_.CountRefused();
      target.SendResponse(
          WriteRtspResponse(400, "", {{"Server", "qz-rtsp"}, {"Connection", "close"}}));
      target.CloseAfterWrite();
      return;
    }
    request_started_ms = 0;
    if (result == RtspParseResult::kInterleaved) {
      // RTCP from a TCP client: receiver reports keep its session alive.
      core_.table().OnInterleaved(target, parser_.channel(), parser_.payload(), now,
                                  RtcpCompactNtp(core_.fanout().clock().WallUs()));
    } else {
      // The answer is written once the request is handled: a PLAY's
      // sender reports go behind its answer and before its first media.
      target.handling_ = true;
      core_.handler().Handle(target, parser_.request());
      target.handling_ = false;
      target.KickWrite();
    }
    if (closed_) {
      return;
    }
  }
  if (parser_.buffered() == 0) {
    request_started_ms = 0;
  } else if (request_started_ms == 0) {
    request_started_ms = now;
  }
}

void RtspConnection::ReadHttpHead(const char* data, size_t n, long long now) {
  const HttpTunnelHeadParser::Result result = head_->Feed(data, n);
  if (result == HttpTunnelHeadParser::Result::kNeedMore) {
    request_started_ms = request_started_ms == 0 ? now : request_started_ms;
    return;
  }
  request_started_ms = 0;
  const bool post = head_->head().post;
  const std::string cookie = head_->head().cookie;
  pending_ = head_->rest();
  head_.reset();
  if (result == HttpTunnelHeadParser::Result::kBad || over_limit) {
    core_.CountRefused();
    if (post && result == HttpTunnelHeadParser::Result::kDone) {
      Close();  // a POST is never answered
    } else {
      SendResponse(WriteHttpTunnelAnswer(over_limit ? 503 : 400));
      CloseAfterWrite();
    }
    return;
  }
  if (post) {
    JoinTunnel(cookie, now);
  } else {
    OpenTunnel(cookie, now);
  }
}

void RtspConnection::OpenTunnel(const std::string& cookie, long long now) {
  std::shared_ptr<RtspClient> post;
  const RtspTunnelTable::Result result = core_.tunnels().OpenGet(cookie, shared_from_this(), &post);
  if (result == RtspTunnelTable::Result::kTaken) {
    // A second GET for a live tunnel: the first one keeps it.
    core_.CountRefused();
    SendResponse(WriteHttpTunnelAnswer(403));
    CloseAfterWrite();
    return;
  }
  cookie_ = cookie;
  mode_ = Mode::kTunnelGet;
  pending_.clear();
  SendResponse(WriteHttpTunnelAnswer(200));
  if (result == RtspTunnelTable::Result::kJoined) {
    Pair(std::static_pointer_cast<RtspConnection>(shared_from_this()),
         std::static_pointer_cast<RtspConnection>(post), now);
  }
}

void RtspConnection::JoinTunnel(const std::string& cookie, long long now) {
  std::shared_ptr<RtspClient> get;
  const RtspTunnelTable::Result result = core_.tunnels().JoinPost(cookie, shared_from_this(), &get);
  if (result == RtspTunnelTable::Result::kJoined) {
    cookie_ = cookie;
    Pair(std::static_pointer_cast<RtspConnection>(get),
         std::static_pointer_cast<RtspConnection>(shared_from_this()), now);
  } else if (result == RtspTunnelTable::Result::kWaiting) {
    // Its GET may still come; until then nothing more is read, and the
    // idle clock closes it if it never does.
    cookie_ = cookie;
    mode_ = Mode::kTunnelWait;
  } else {
    // The cookie's tunnel has its POST, or its GET came from another
    // address: this POST sends nothing into it.
    core_.CountRefused();
    Close();
  }
}

void RtspConnection::Pair(const std::shared_ptr<RtspConnection>& get,
                          const std::shared_ptr<RtspConnection>& post,
                          long long now) {
  get->tunnel_peer_ = post;
  post->tunnel_peer_ = get;
  post->tunnel_output = get.get();
  const bool was_waiting = post->mode_ == Mode::kTunnelWait;
  post->mode_ = Mode::kTunnelPost;
  std::string body;
  body.swap(post->pending_);
  post->ReadTunnelled(body.data(), body.size(), now);
  if (was_waiting && !post->closed_) {
    post->DoRead();  // a parked POST is read again
  }
}

void RtspConnection::ReadTunnelled(const char* data, size_t n, long long now) {
  const std::shared_ptr<RtspConnection> get = tunnel_peer_;  // alive while it handles
  if (!get) {
    return;
  }
  std::string decoded;
  const bool good = base64_.Decode(data, n, decoded);
  parser_.Feed(decoded.data(), decoded.size());
  ParseRequests(*get, now);
  if (!good && !closed_ && !get->closed_ && !get->close_after_write_) {
    core_.CountRefused();
    get->SendResponse(WriteRtspResponse(400, "", {{"Server", "qz-rtsp"}, {"Connection", "close"}}));
    get->CloseAfterWrite();
  }
}

void RtspConnection::SendResponse(std::string response) {
  control_bytes_ += response.size();
  control_.push_back(std::move(response));
  if (control_bytes_ > kMaxControlBytes) {
    core_.CountRefused();
    Close();  // a client that sends requests but never reads the answers
    return;
  }
  if (!handling_) {
    KickWrite();
  }
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

void RtspConnection::SizeSendBuffer() {
  // The cap (2 MiB) holds a second of a 16 Mbit/s stream, however many
  // sessions the connection has: sixty connections with eight sessions
  // each that never read held 45 MB of send queues on a 6 Mbit/s stream
  // (tests/security).
  const int ms = core_.options().tcp_send_buffer_ms;
  std::set<const RtspStream*> streams;
  size_t rate = 0;
  for (const auto& entry : sessions()) {
    const RtspSession& session = *entry.second;
    if (session.playing() && session.HasTcpTrack() && streams.insert(&session.stream()).second) {
      rate += session.stream().byte_rate();
    }
  }
  if (ms <= 0 || streams.empty() || closed_) {
    return;
  }
  qz_rtsp_internal_server::SizeSendBuffer(link_->socket(), rate, ms, send_buffer_bytes_);
}

void RtspConnection::KickWrite() {
  auto self = shared_from_this();  // a failed write closes (and may release) this connection
  while (!writing_ && !closed_) {
    std::vector<asio::const_buffer> control;
    const std::vector<asio::const_buffer>* buffers = &control;
    if (!control_.empty()) {
      writing_control_ = std::move(control_.front());
      control_.pop_front();
      control_bytes_ -= writing_control_.size();
      control.emplace_back(asio::buffer(writing_control_));
    } else if (close_after_write_) {
      Close();
      return;
    } else {
      if (send_buffer_bytes_ == 0) {
        SizeSendBuffer();  // before the first media write, not a tick later
      }
      if (!core_.fanout().GatherTcp(*this, media_)) {
        return;
      }
      buffers = &media_.buffers;
    }
    writing_ = true;
    // Most writes fit into the socket's buffer: over TCP they go to the
    // kernel now, in one sendmsg(), without a round trip through the event
    // loop. Only what does not fit (over TLS: all) waits for the socket.
    const size_t total = asio::buffer_size(*buffers);
    asio::error_code ec;
    const size_t n = link_->WriteNow(*buffers, ec);
    if (ec || n == total) {
      FinishWrite(ec, n);
      continue;
    }
    std::vector<asio::const_buffer> rest;
    size_t skip = n;
    for (const asio::const_buffer& b : *buffers) {
      if (skip >= b.size()) {
        skip -= b.size();
        continue;
      }
      rest.push_back(b + skip);
      skip = 0;
    }
    write_blocked_since_ms = core_.NowMs();
    link_->Write(rest, [this, self, n](const asio::error_code& error, size_t m) {
      write_blocked_since_ms = 0;
      FinishWrite(error, n + m);
      KickWrite();
    });
    return;
  }
}

void RtspConnection::FinishWrite(const asio::error_code& ec, size_t bytes) {
  writing_ = false;
  writing_control_.clear();
  if (media_.session) {
    core_.fanout().FinishTcpWrite(media_, !ec, bytes);
  }
  if (ec) {
    Close();
  }
}

}  // namespace qz_rtsp_internal_server
