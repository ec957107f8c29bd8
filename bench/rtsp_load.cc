// qz_rtsp_load: many RTSP viewers in one process, for measuring a server.
// Opens N sessions against a URL (TCP interleaved or UDP), plays them and
// discards the media after counting it: RTP packets, bytes, sequence gaps and
// complete video access units per session, and each access unit's delay over
// the session's best one (arrival time minus RTP time, after a warm-up, so the
// cached GOP a server may send at once does not count). One Asio thread.
// Prints a line a second and a summary at the end. An rtsps:// URL plays
// inside TLS (interleaved only; the server's certificate is not checked).
//
// With --poll-ms P the thread does not sleep in epoll_wait but drains every
// socket each P ms. Over loopback a server's write runs the reader's receive
// path and, when the reader sleeps in epoll_wait, wakes it with an
// inter-processor interrupt that the server pays inside its own send call
// (in a VM a large share of its CPU); a reader across a real network costs
// the sender no such wake-up. Arrival times are then known to P ms.
//
//   qz_rtsp_load rtsp://127.0.0.1:8554/live --sessions 100 [--udp] [--seconds 20]
//                [--poll-ms P]
#include <asio.hpp>
#include <asio/ssl.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

double NowMs() {
  return std::chrono::duration<double, std::milli>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

struct TrackCounters {
  bool seen = false;
  uint16_t next_seq = 0;
  unsigned long long packets = 0;
  unsigned long long bytes = 0;
  unsigned long long gaps = 0;  // packets missing by sequence number
};

struct Totals {
  unsigned long long packets = 0, bytes = 0, gaps = 0, frames = 0;
  int alive = 0, failed = 0;
};

constexpr double kWarmUpMs = 3000;

class Session : public std::enable_shared_from_this<Session> {
  // One UDP track: its RTP socket and receive buffer.
  struct UdpTrack {
    explicit UdpTrack(asio::ip::udp::socket s) : socket(std::move(s)) {}
    asio::ip::udp::socket socket;
    std::array<uint8_t, 2048> buffer;
  };

 public:
  // `tls`: the session runs inside TLS.
  Session(asio::io_context& io,
          asio::ip::tcp::endpoint server,
          std::string url,
          bool udp,
          asio::ssl::context* tls)
      : io_(io), socket_(io), server_(server), url_(std::move(url)), udp_(udp) {
    if (tls != nullptr) {
      tls_.reset(new asio::ssl::stream<asio::ip::tcp::socket&>(socket_, *tls));
    }
  }

  void Start() {
    auto self = shared_from_this();
    socket_.async_connect(server_, [this, self](const asio::error_code& ec) {
      if (ec) {
        Fail();
        return;
      }
      socket_.set_option(asio::socket_base::receive_buffer_size(256 * 1024));
      if (!tls_) {
        Describe();
        return;
      }
      tls_->async_handshake(asio::ssl::stream_base::client,
                            [this, self](const asio::error_code& error) {
                              if (error) {
                                Fail();
                              } else {
                                Describe();
                              }
                            });
    });
  }

  bool alive() const { return playing_ && !failed_; }
  bool failed() const { return failed_; }
  void AddTo(Totals& t) const {
    for (const TrackCounters& c : tracks_) {
      t.packets += c.packets;
      t.bytes += c.bytes;
      t.gaps += c.gaps;
    }
    t.frames += frames_;
  }
  // Delays over this session's best access unit.
  void Delays(std::vector<double>& out) const {
    if (delays_.empty()) {
      return;
    }
    const double best = *std::min_element(delays_.begin(), delays_.end());
    for (double d : delays_) {
      out.push_back(d - best);
    }
  }

 private:
  void Fail() {
    failed_ = true;
    asio::error_code ec;
    socket_.close(ec);
    for (auto& u : udp_sockets_) {
      u->socket.close(ec);
    }
  }

  void Describe() {
    Request("DESCRIBE", url_, "Accept: application/sdp\r\n");
    Read();
  }

  void Request(const std::string& method, const std::string& url, const std::string& extra) {
    auto text = std::make_shared<std::string>(method + " " + url + " RTSP/1.0\r\nCSeq: " +
                                              std::to_string(++cseq_) + "\r\n" + extra + "\r\n");
    auto self = shared_from_this();
    auto done = [this, self, text](const asio::error_code& ec, size_t) {
      if (ec) {
        Fail();
      }
    };
    if (tls_) {
      asio::async_write(*tls_, asio::buffer(*text), done);
    } else {
      asio::async_write(socket_, asio::buffer(*text), done);
    }
  }

  void Read() {
    auto self = shared_from_this();
    auto done = [this, self](const asio::error_code& ec, size_t n) {
      if (ec) {
        if (!failed_ && playing_) {
          playing_ = false;  // the server ended the session
        }
        Fail();
        return;
      }
      buffer_.append(chunk_.data(), n);
      Parse();
      if (!failed_) {
        Read();
      }
    };
    if (tls_) {
      tls_->async_read_some(asio::buffer(chunk_), done);
    } else {
      socket_.async_read_some(asio::buffer(chunk_), done);
    }
  }

  void Parse() {
    size_t pos = 0;
    for (;;) {
      if (buffer_.size() - pos >= 4 && buffer_[pos] == '$') {
        const size_t len =
            (static_cast<uint8_t>(buffer_[pos + 2]) << 8) | static_cast<uint8_t>(buffer_[pos + 3]);
        if (buffer_.size() - pos < 4 + len) {
          break;
        }
        const uint8_t channel = static_cast<uint8_t>(buffer_[pos + 1]);
        if (channel % 2 == 0) {
          OnRtp(channel / 2, reinterpret_cast<const uint8_t*>(buffer_.data() + pos + 4), len);
        }
        pos += 4 + len;
        continue;
      }
      const size_t end = buffer_.find("\r\n\r\n", pos);
      if (end == std::string::npos) {
        break;
      }
      const std::string head = buffer_.substr(pos, end - pos);
      size_t body_len = 0;
      const size_t cl = head.find("Content-Length:");
      if (cl != std::string::npos) {
        body_len = std::strtoul(head.c_str() + cl + 15, nullptr, 10);
      }
      if (buffer_.size() < end + 4 + body_len) {
        break;
      }
      OnResponse(head, buffer_.substr(end + 4, body_len));
      pos = end + 4 + body_len;
      if (failed_) {
        return;
      }
    }
    buffer_.erase(0, pos);
  }

  static std::string Header(const std::string& head, const std::string& name) {
    const size_t at = head.find("\r\n" + name + ":");
    if (at == std::string::npos) {
      return "";
    }
    size_t start = at + name.size() + 3;
    while (start < head.size() && head[start] == ' ') {
      ++start;
    }
    return head.substr(start, head.find("\r\n", start) - start);
  }

  void OnResponse(const std::string& head, const std::string& body) {
    if (head.compare(0, 12, "RTSP/1.0 200") != 0) {
      Fail();
      return;
    }
    if (step_ == 0) {  // DESCRIBE: one control URL per m= section
      std::string base = Header(head, "Content-Base");
      if (base.empty()) {
        base = url_ + "/";
      }
      size_t at = 0;
      bool in_media = false;
      while ((at = body.find('\n', at)) != std::string::npos) {
        ++at;
        if (body.compare(at, 2, "m=") == 0) {
          in_media = true;
          video_track_ = body.compare(at, 7, "m=video") == 0 && video_track_ < 0
                             ? static_cast<int>(controls_.size())
                             : video_track_;
          controls_.push_back("");
        } else if (in_media && body.compare(at, 10, "a=control:") == 0) {
          std::string c = body.substr(at + 10, body.find_first_of("\r\n", at) - at - 10);
          controls_.back() = c.find("://") != std::string::npos ? c : base + c;
        }
      }
      if (controls_.empty()) {
        Fail();
        return;
      }
      tracks_.resize(controls_.size());
      step_ = 1;
      Setup(0);
    } else if (step_ <= static_cast<int>(controls_.size())) {
      const std::string session = Header(head, "Session");
      session_ = session.substr(0, session.find(';'));
      if (step_ < static_cast<int>(controls_.size())) {
        Setup(step_++);
      } else {
        step_++;
        Request("PLAY", url_, "Session: " + session_ + "\r\nRange: npt=0.000-\r\n");
      }
    } else if (!playing_) {
      playing_ = true;
      play_ms_ = NowMs();
    }
  }

  void Setup(int track) {
    std::string transport;
    if (udp_) {
      // An RTP port whose neighbour is free too, held for RTCP, so that no
      // other session's RTCP lands on this session's RTP socket.
      const asio::ip::udp protocol =
          server_.address().is_v4() ? asio::ip::udp::v4() : asio::ip::udp::v6();
      std::unique_ptr<UdpTrack> rtp;
      for (int attempt = 0; attempt < 100 && !rtp; ++attempt) {
        auto candidate = std::make_unique<UdpTrack>(
            asio::ip::udp::socket(io_, asio::ip::udp::endpoint(protocol, 0)));
        const uint16_t port = candidate->socket.local_endpoint().port();
        auto rtcp = std::make_unique<UdpTrack>(asio::ip::udp::socket(io_, protocol));
        asio::error_code ec;
        rtcp->socket.bind(asio::ip::udp::endpoint(protocol, static_cast<uint16_t>(port + 1)), ec);
        if (!ec) {
          rtp = std::move(candidate);
          udp_sockets_.push_back(std::move(rtcp));
        }
      }
      if (!rtp) {
        Fail();
        return;
      }
      // Key frames arrive as bursts of hundreds of datagrams: room for a few.
      rtp->socket.set_option(asio::socket_base::receive_buffer_size(4 << 20));
      const int port = rtp->socket.local_endpoint().port();
      transport =
          "RTP/AVP;unicast;client_port=" + std::to_string(port) + "-" + std::to_string(port + 1);
      ReceiveUdp(*rtp, track);
      udp_sockets_.push_back(std::move(rtp));
    } else {
      transport = "RTP/AVP/TCP;unicast;interleaved=" + std::to_string(2 * track) + "-" +
                  std::to_string(2 * track + 1);
    }
    Request("SETUP", controls_[static_cast<size_t>(track)],
            "Transport: " + transport + "\r\n" +
                (session_.empty() ? "" : "Session: " + session_ + "\r\n"));
  }

  void ReceiveUdp(UdpTrack& udp, int track) {
    auto self = shared_from_this();
    udp.socket.async_receive(asio::buffer(udp.buffer),
                             [this, self, &udp, track](const asio::error_code& ec, size_t n) {
                               if (ec) {
                                 return;
                               }
                               OnRtp(track, udp.buffer.data(), n);
                               ReceiveUdp(udp, track);
                             });
  }

  void OnRtp(int track, const uint8_t* p, size_t n) {
    // RTCP (packet types 200 to 204 where RTP has its payload type) is not media.
    if (n < 12 || track < 0 || track >= static_cast<int>(tracks_.size()) ||
        (p[1] >= 200 && p[1] <= 204)) {
      return;
    }
    TrackCounters& c = tracks_[static_cast<size_t>(track)];
    const uint16_t seq = static_cast<uint16_t>((p[2] << 8) | p[3]);
    if (c.seen && seq != c.next_seq) {
      const uint16_t missing = static_cast<uint16_t>(seq - c.next_seq);
      if (missing < 0x8000) {
        c.gaps += missing;
      }
    }
    c.seen = true;
    c.next_seq = static_cast<uint16_t>(seq + 1);
    ++c.packets;
    c.bytes += n;
    if (track == video_track_ && (p[1] & 0x80) != 0) {  // marker: the access unit is complete
      ++frames_;
      const uint32_t ts =
          (uint32_t(p[4]) << 24) | (uint32_t(p[5]) << 16) | (uint32_t(p[6]) << 8) | p[7];
      if (!has_ts_) {
        has_ts_ = true;
        ext_ts_ = ts;
      } else {
        ext_ts_ += static_cast<int32_t>(ts - last_ts_);
      }
      last_ts_ = ts;
      const double now = NowMs();
      if (now - play_ms_ > kWarmUpMs) {
        delays_.push_back(now - static_cast<double>(ext_ts_) / 90.0);
      }
    }
  }

  asio::io_context& io_;
  asio::ip::tcp::socket socket_;
  std::unique_ptr<asio::ssl::stream<asio::ip::tcp::socket&>> tls_;  // rtsps://
  asio::ip::tcp::endpoint server_;
  std::string url_;
  bool udp_;
  std::array<char, 64 * 1024> chunk_;
  std::string buffer_;
  int cseq_ = 0;
  int step_ = 0;
  std::vector<std::string> controls_;
  std::string session_;
  std::vector<std::unique_ptr<UdpTrack>> udp_sockets_;
  std::vector<TrackCounters> tracks_;
  int video_track_ = -1;
  bool playing_ = false;
  bool failed_ = false;
  double play_ms_ = 0;
  unsigned long long frames_ = 0;
  bool has_ts_ = false;
  uint32_t last_ts_ = 0;
  long long ext_ts_ = 0;
  std::vector<double> delays_;
};

double Percentile(std::vector<double>& v, double p) {
  if (v.empty()) {
    return 0;
  }
  const size_t k = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())));
  std::nth_element(v.begin(), v.begin() + static_cast<long>(k), v.end());
  return v[k];
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr,
                 "usage: qz_rtsp_load URL [--sessions N] [--udp] [--seconds S] [--poll-ms P]\n");
    return 2;
  }
  const std::string url = argv[1];
  int sessions = 10;
  int seconds = 20;
  int poll_ms = 0;
  bool udp = false;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--udp") {
      udp = true;
    } else if (arg == "--sessions" && i + 1 < argc) {
      sessions = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--seconds" && i + 1 < argc) {
      seconds = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--poll-ms" && i + 1 < argc) {
      poll_ms = std::max(0, std::atoi(argv[++i]));
    }
  }
  // rtsp://host:port/path
  const size_t host_start = url.find("://") == std::string::npos ? 0 : url.find("://") + 3;
  const size_t path = url.find('/', host_start);
  const std::string authority = url.substr(host_start, path - host_start);
  const size_t colon = authority.rfind(':');
  const std::string host = authority.substr(0, colon);
  const int port = colon == std::string::npos ? 554 : std::atoi(authority.c_str() + colon + 1);
  asio::io_context io;
  asio::error_code ec;
  const asio::ip::address address = asio::ip::make_address(host, ec);
  if (ec) {
    std::fprintf(stderr, "qz_rtsp_load: the host must be an IP address\n");
    return 2;
  }
  const asio::ip::tcp::endpoint server(address, static_cast<uint16_t>(port));
  const bool tls = url.compare(0, 8, "rtsps://") == 0;
  if (tls && udp) {
    std::fprintf(stderr, "qz_rtsp_load: rtsps:// plays over TCP only\n");
    return 2;
  }
  asio::ssl::context tls_context(asio::ssl::context::tls_client);
  tls_context.set_verify_mode(asio::ssl::verify_none);
  std::vector<std::shared_ptr<Session>> all;
  for (int i = 0; i < sessions; ++i) {
    all.push_back(std::make_shared<Session>(io, server, url, udp, tls ? &tls_context : nullptr));
    all.back()->Start();
  }
  const double start = NowMs();
  Totals last;
  asio::steady_timer tick(io);
  int elapsed = 0;
  std::function<void()> report = [&] {
    tick.expires_after(std::chrono::seconds(1));
    tick.async_wait([&](const asio::error_code&) {
      ++elapsed;
      Totals t;
      for (const auto& s : all) {
        s->AddTo(t);
        t.alive += s->alive() ? 1 : 0;
        t.failed += s->failed() ? 1 : 0;
      }
      std::printf(
          "[%3ds] sessions %d alive, %d failed, %.1f Mbit/s, %llu packets/s, %llu lost, "
          "%llu frames/s\n",
          elapsed, t.alive, t.failed, (t.bytes - last.bytes) * 8 / 1e6, t.packets - last.packets,
          t.gaps, t.frames - last.frames);
      std::fflush(stdout);
      last = t;
      if (elapsed >= seconds) {
        io.stop();
      } else {
        report();
      }
    });
  };
  report();
  if (poll_ms == 0) {
    io.run();
  } else {
    // The report timer keeps the context busy until it stops it.
    while (!io.stopped()) {
      io.poll();
      std::this_thread::sleep_for(std::chrono::milliseconds(poll_ms));
    }
  }
  const double wall_s = (NowMs() - start) / 1000.0;
  Totals t;
  std::vector<double> delays;
  for (const auto& s : all) {
    s->AddTo(t);
    t.alive += s->alive() ? 1 : 0;
    s->Delays(delays);
  }
  const double loss = t.packets + t.gaps == 0 ? 0 : 100.0 * t.gaps / (t.packets + t.gaps);
  std::printf(
      "summary: sessions %d/%d alive, %.1f Mbit/s, loss %.3f %%, frames %llu, "
      "delay over best p50 %.1f ms p99 %.1f ms max %.1f ms\n",
      t.alive, sessions, t.bytes * 8 / 1e6 / wall_s, loss, t.frames, Percentile(delays, 0.5),
      Percentile(delays, 0.99), Percentile(delays, 1.0));
  return t.alive == sessions ? 0 : 1;
}
