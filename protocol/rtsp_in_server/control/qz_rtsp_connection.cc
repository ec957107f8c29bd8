#include "protocol/rtsp_in_server/control/qz_rtsp_connection.h"

#include <algorithm>
#include <set>

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
                               asio::ip::tcp::socket socket,
                               bool over_limit,
                               std::function<void(RtspConnection*)> on_closed)
    : RtspClient(Local(socket), Remote(socket)),
      core_(core),
      socket_(std::move(socket)),
      on_closed_(std::move(on_closed)),
      parser_(ParserLimits(core.options())) {
  this->over_limit = over_limit;
  asio::error_code ec;
  socket_.set_option(asio::ip::tcp::no_delay(true), ec);
  // Writes are tried at once and never block; see KickWrite().
  socket_.non_blocking(true, ec);
  accepted_ms = core_.NowMs();
  idle_since_ms = accepted_ms;
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
  core_.ClientClosed(*this);
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
  socket_.async_read_some(asio::buffer(read_buffer_),
                          [this, self](const asio::error_code& ec, size_t n) {
                            if (ec || closed_) {
                              Close();
                              return;
                            }
                            if (close_after_write_) {
                              return;  // no more requests from a connection being closed
                            }
                            OnRead(n);
                            if (!closed_) {
                              DoRead();
                            }
                          });
}

void RtspConnection::OnRead(size_t n) {
  const long long now = core_.NowMs();
  parser_.Feed(read_buffer_.data(), n);
  for (;;) {
    const RtspParseResult result = parser_.Next();
    if (result == RtspParseResult::kNeedMore) {
      break;
    }
    if (result == RtspParseResult::kBadRequest) {
      core_.CountRefused();
      SendResponse(WriteRtspResponse(400, "", {{"Server", "qz-rtsp"}, {"Connection", "close"}}));
      CloseAfterWrite();
      return;
    }
    request_started_ms = 0;
    if (result == RtspParseResult::kInterleaved) {
      // RTCP from a TCP client: receiver reports keep its session alive.
      core_.table().OnInterleaved(*this, parser_.channel(), parser_.payload(), now,
                                  RtcpCompactNtp(core_.fanout().clock().WallUs()));
    } else {
      // The answer is written once the request is handled: a PLAY's
      // sender reports go behind its answer and before its first media.
      handling_ = true;
      core_.handler().Handle(*this, parser_.request());
      handling_ = false;
      KickWrite();
    }
    if (closed_ || close_after_write_) {
      return;
    }
  }
  if (parser_.buffered() == 0) {
    request_started_ms = 0;
  } else if (request_started_ms == 0) {
    request_started_ms = now;
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
  // The cap holds a second of a 16 Mbit/s stream, however many sessions the
  // connection has: sixty connections with eight sessions each that never
  // read held 45 MB of send queues on a 6 Mbit/s stream (tests/security).
  constexpr size_t kMinSendBuffer = 64 * 1024;
  constexpr size_t kMaxSendBuffer = 2 * 1024 * 1024;
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
    // Most writes fit into the socket's buffer: hand them to the kernel now,
    // in one sendmsg(), without a round trip through the event loop. Only
    // what does not fit waits for the socket to drain.
    const size_t total = asio::buffer_size(*buffers);
    asio::error_code ec;
    size_t n = socket_.write_some(*buffers, ec);
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
    for (const asio::const_buffer& b : *buffers) {
      if (skip >= b.size()) {
        skip -= b.size();
        continue;
      }
      rest.push_back(b + skip);
      skip = 0;
    }
    write_blocked_since_ms = core_.NowMs();
    asio::async_write(socket_, rest, [this, self, n](const asio::error_code& error, size_t m) {
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
