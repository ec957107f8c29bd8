// qz_rtsp_publish: serves a live RTSP stream from a built-in test source or a
// media file, driving the library exactly as an app on a phone would: an
// event manager, in-process RTSP servers, one RtspSinker, encoder threads
// that push packets, user data, and a clean stop on Ctrl-C.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "protocol/rtsp_in_server/media/qz_delay_histogram.h"
#include "protocol/rtsp_in_server/qz_rtsp_server.h"
#include "protocol/rtsp_push/qz_rtsp_pusher.h"
#include "publisher/qz_rtsp_sinker.h"
#include "tools/qz_rtsp_publish/file_source.h"
#include "tools/qz_rtsp_publish/options.h"
#include "tools/qz_rtsp_publish/test_source.h"
#include "tools/qz_rtsp_publish/tls_cert.h"
#include "topcommon/qz_event_define.h"
#include "topcommon/qz_event_mgr.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

using qz_rtsp_internal_server::QZRtspPusher;
using qz_rtsp_internal_server::QZRtspPushOptions;
using qz_rtsp_internal_server::QZRtspPushStats;
using qz_rtsp_internal_server::QZRtspServer;
using qz_rtsp_internal_server::QZRtspServerOptions;
using qz_rtsp_internal_server::QZRtspServerStats;
using qz_rtsp_internal_server::QZRtspSessionStats;

std::atomic<bool> g_stop{false};

void OnSignal(int) {
  g_stop = true;
}

struct Counters {
  std::atomic<long long> video_frames{0};
  std::atomic<long long> audio_frames{0};
  std::atomic<long long> bytes{0};
};

// The statistics of every server, added up.
// Delay counts when the summary's window opened.
struct WindowBase {
  std::vector<unsigned long long> write;
  std::vector<unsigned long long> push;
};

struct DelayWindow {
  unsigned long long records = 0;
  double p50_ms = 0;
  double p99_ms = 0;
};

// Percentiles of the delays counted since `base` was taken.
DelayWindow Window(const qz_rtsp_internal_server::QZRtspDelayStats& delay,
                   const std::vector<unsigned long long>& base) {
  std::vector<unsigned long long> counts = delay.counts;
  DelayWindow window;
  for (size_t i = 0; i < counts.size(); ++i) {
    counts[i] -= i < base.size() ? base[i] : 0;
    window.records += counts[i];
  }
  using qz_rtsp_internal_server::DelayHistogram;
  window.p50_ms = DelayHistogram::PercentileOfCountsUs(counts, 0.50) / 1000.0;
  window.p99_ms = DelayHistogram::PercentileOfCountsUs(counts, 0.99) / 1000.0;
  return window;
}

// One line of a server's counters, for the summary at exit.
void PrintServerCounters(const char* label, const QZRtspServerStats& stats) {
  std::fprintf(stderr,
               "%s: %d connections, %d sessions, %llu packets sent (%llu TCP writes), "
               "dropped %llu slow reader / %llu socket full / %llu control backlog, "
               "%llu refused\n",
               label, stats.connections, stats.sessions, stats.packets_sent, stats.tcp_writes,
               stats.dropped.slow_reader, stats.dropped.socket_full, stats.dropped.control_backlog,
               stats.connections_refused);
}

// Delay windows are kept per server and stream: every server carries the
// same stream names.
std::string WindowKey(const QZRtspServer& server, const std::string& stream) {
  return std::to_string(server.Port()) + "/" + stream;
}

QZRtspServerStats Summarize(const std::vector<std::unique_ptr<QZRtspServer>>& servers) {
  QZRtspServerStats total;
  for (const auto& server : servers) {
    const QZRtspServerStats s = server->GetStats();
    total.connections += s.connections;
    total.sessions += s.sessions;
    total.playing += s.playing;
    total.bytes_sent += s.bytes_sent;
    total.packets_sent += s.packets_sent;
    total.tcp_writes += s.tcp_writes;
    total.packets_dropped += s.packets_dropped;
    total.dropped.slow_reader += s.dropped.slow_reader;
    total.dropped.socket_full += s.dropped.socket_full;
    total.dropped.control_backlog += s.dropped.control_backlog;
    total.key_frame_requests += s.key_frame_requests;
    total.connections_refused += s.connections_refused;
    total.stream_stats.insert(total.stream_stats.end(), s.stream_stats.begin(),
                              s.stream_stats.end());
    total.session_stats.insert(total.session_stats.end(), s.session_stats.begin(),
                               s.session_stats.end());
  }
  return total;
}

// ", <who> loss 2.3 %, jitter 4.1 ms, RTT 12.0 ms" (RTT only when known:
// from reports that echo a sender report).
std::string ReceptionText(const char* who, double loss, double jitter, double rtt) {
  char text[128];
  std::snprintf(text, sizeof(text), ", %s loss %.1f %%, jitter %.1f ms", who, loss, jitter);
  std::string out = text;
  if (rtt >= 0) {
    std::snprintf(text, sizeof(text), ", RTT %.1f ms", rtt);
    out += text;
  }
  return out;
}

// What the viewers' receiver reports say, the worst of each figure (empty
// while none reported).
std::string ReceptionSummary(const std::vector<QZRtspSessionStats>& sessions) {
  double loss = 0, jitter = 0, rtt = -1;
  bool any = false;
  for (const QZRtspSessionStats& s : sessions) {
    if (s.receiver_reports == 0) {
      continue;
    }
    any = true;
    loss = std::max(loss, s.fraction_lost * 100);
    jitter = std::max(jitter, s.jitter_ms);
    rtt = std::max(rtt, s.rtt_ms);
  }
  return any ? ReceptionText("viewers report", loss, jitter, rtt) : std::string();
}

}  // namespace

int main(int argc, char** argv) {
  qz_tools::PublishOptions options;
  int exit_code = 0;
  if (!qz_tools::ParseOptions(argc, argv, options, &exit_code)) {
    return exit_code;
  }
  // The log goes out line by line, also into a file or a pipe: what a
  // viewer of the log sees is current, and a crash loses no line.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  // FFmpeg's informational messages (x264's statistics at exit and the
  // like) only on request; warnings and errors always.
  av_log_set_level(options.verbose ? AV_LOG_INFO : AV_LOG_WARNING);
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  std::signal(SIGPIPE, SIG_IGN);

  std::unique_ptr<qz_tools::MediaSource> source;
  if (options.input.empty()) {
    source.reset(new qz_tools::TestSource(options));
  } else {
    source.reset(new qz_tools::FileSource(options));
  }
  std::string error;
  if (!source->Open(&error)) {
    std::fprintf(stderr, "qz_rtsp_publish: %s\n", error.c_str());
    return 2;
  }

  std::string tls_cert = options.tls_cert, tls_key = options.tls_key;
  if (options.tls_port >= 0) {
    if (tls_cert.empty() &&
        !qz_tools::EnsureSelfSignedCertificate(qz_tools::TlsFolder(options.tls_dir), options.bind,
                                               tls_cert, tls_key, error)) {
      std::fprintf(stderr, "qz_rtsp_publish: %s\n", error.c_str());
      return 2;
    }
    // A viewer that cannot check the certificate against a CA compares
    // this with what its TLS library shows.
    std::printf("TLS certificate %s\n", tls_cert.c_str());
    std::printf("TLS certificate SHA-256 fingerprint %s\n",
                qz_tools::CertificateFingerprint(tls_cert).c_str());
  }

  std::vector<std::unique_ptr<QZRtspServer>> servers;
  std::vector<void*> handles;
  for (int i = 0; i < options.servers; ++i) {
    QZRtspServerOptions server_options;
    server_options.port = static_cast<uint16_t>(options.port == 0 ? 0 : options.port + i);
    server_options.bind_address = options.bind;
    server_options.max_clients = options.max_clients;
    server_options.max_clients_per_address = options.max_clients_per_address;
    server_options.gop_cache = options.gop_cache;
    server_options.udp_gso = options.udp_gso;
    server_options.http_tunnel = options.http_tunnel;
    server_options.http_tunnel_port =
        options.http_port <= 0 ? options.http_port : options.http_port + i;
    server_options.tls_port = options.tls_port <= 0 ? options.tls_port : options.tls_port + i;
    server_options.tls_cert_file = tls_cert;
    server_options.tls_key_file = tls_key;
    server_options.auth_user = options.user;
    server_options.auth_password = options.password;
    server_options.auth_nonce_lifetime_s = options.nonce_lifetime;
    if (options.multicast) {
      // The servers of one process take group ranges, and ports, that do
      // not overlap: server i the i-th range of multicast_group_count.
      const int groups = server_options.multicast_group_count;
      server_options.multicast = true;
      server_options.multicast_ttl = options.multicast_ttl;
      server_options.multicast_first_group = qz_tools::OffsetIPv4(
          options.multicast_group.empty() ? server_options.multicast_first_group
                                          : options.multicast_group,
          static_cast<long long>(i) * groups);
      server_options.multicast_port += i * 4 * groups;  // 4 ports a group
    }
    // A viewer waiting for a key frame gets one from the encoder at once
    // rather than at the end of the current GOP.
    qz_tools::MediaSource* video_source = source.get();
    server_options.on_key_frame_request = [video_source](const std::string&) {
      video_source->RequestKeyFrame();
    };
    std::unique_ptr<QZRtspServer> server(new QZRtspServer(server_options));
    if (!server->Start()) {
      std::fprintf(stderr,
                   "qz_rtsp_publish: cannot start the server on port %d (the log says why)\n",
                   server_options.port);
      return 2;
    }
    if (server->HttpTunnelPort() != 0) {
      std::printf("HTTP tunnel port %u\n", static_cast<unsigned>(server->HttpTunnelPort()));
    }
    if (server->TlsPort() != 0) {
      std::printf("TLS port %u\n%s\n", static_cast<unsigned>(server->TlsPort()),
                  server->TlsUrlFor(options.name).c_str());
    }
    handles.push_back(server->Handle());
    servers.push_back(std::move(server));
  }

  std::vector<std::unique_ptr<QZRtspPusher>> pushers;
  for (const std::string& url : options.push) {
    QZRtspPushOptions push_options;
    push_options.url = url;
    push_options.udp = options.push_udp;
    push_options.tls_ca_file = options.push_tls_ca;
    push_options.tls_fingerprint = options.push_tls_fingerprint;
    push_options.tls_verify = !options.push_tls_insecure;
    push_options.allow_basic_in_clear = options.push_basic_in_clear;
    qz_tools::MediaSource* video_source = source.get();
    push_options.on_key_frame_request = [video_source](const std::string&) {
      video_source->RequestKeyFrame();
    };
    std::unique_ptr<QZRtspPusher> pusher(new QZRtspPusher(push_options));
    if (!pusher->Start()) {
      std::fprintf(stderr, "qz_rtsp_publish: cannot push to %s (the log says why)\n",
                   pusher->GetStats().url.c_str());
      return 2;
    }
    handles.push_back(pusher->Handle());
    pushers.push_back(std::move(pusher));
  }

  qz_top_common::EventMgr events;
  events.Init();
  qz_publisher::RtspSinker sinker(&events, options.name, source->has_audio(), source->has_video(),
                                  16);
  sinker.SetRtspServers(handles);
  sinker.SetVideoKBitrate(static_cast<QZ_UINT32>(options.kbitrate));
  sinker.Start();

  Counters counters;
  source->Start([&sinker, &counters](qz_publisher::QZ_MediaPacketRefPtr packet) {
    if (packet->GetMediaType() == qz_publisher::QZMediaPacket::MediaTypeVideo) {
      ++counters.video_frames;
    } else {
      ++counters.audio_frames;
    }
    counters.bytes += packet->Size();
    sinker.PushPacket(packet);
  });

  const long long start = qz_tools::MonotonicMs();
  long long next_status = start + 1000;
  long long next_user_data = start;
  long long last_status = start;
  long long last_bytes = 0;
  long long last_frames = 0;
  unsigned long long last_sent = 0;
  // Delay counts per server and stream when the summary's window opened.
  std::map<std::string, WindowBase> delay_base;
  bool delay_window_open = options.stats_after == 0;
  bool announced = false;
  // Events, user data and the status line need no finer clock than this;
  // Ctrl-C is noticed within one period. Until the stream is announced the
  // loop looks more often: the encoder codes key frames until it hears.
  constexpr auto kMainLoopPeriod = std::chrono::milliseconds(200);
  constexpr auto kAnnounceWaitPeriod = std::chrono::milliseconds(10);
  while (!g_stop.load()) {
    std::this_thread::sleep_for(announced ? kMainLoopPeriod : kAnnounceWaitPeriod);
    const long long now = qz_tools::MonotonicMs();
    while (qz_top_common::InnerEvent* event = events.PopEvent()) {
      if (event->id_ == EVENT_KESTRAVOX_ERC_PUBLISHER_RTSP_URL) {
        // The first viewer gets a key frame now rather than at the end of
        // the GOP that is being coded.
        source->OnStreamAnnounced();
        announced = true;
        std::printf("%s\n", event->param3_.c_str());
        std::fflush(stdout);
      }
      events.DeleteEvent(event);
    }
    if (!options.user_data.empty() && now >= next_user_data) {
      auto item = std::make_shared<qz_common::PublisherUserData>();
      item->SetUTF8String(options.user_data);
      sinker.PostUserData(item);
      next_user_data = now + options.user_data_every * 1000LL;
    }
    if (!delay_window_open && now - start >= options.stats_after * 1000LL) {
      for (const auto& server : servers) {
        for (const auto& stream : server->GetStats().stream_stats) {
          delay_base[WindowKey(*server, stream.name)] =
              WindowBase{stream.write_delay.counts, stream.push_delay.counts};
        }
      }
      delay_window_open = true;
    }
    if (now >= next_status) {
      const long long bytes = counters.bytes.load();
      const long long frames = counters.video_frames.load();
      const QZRtspServerStats stats = Summarize(servers);
      if (!options.quiet) {
        const long long up = (now - start) / 1000;
        const double seconds = std::max(1LL, now - last_status) / 1000.0;
        std::fprintf(stderr,
                     "[%02lld:%02lld:%02lld] video %lld frames (%.1f fps encoded, %lld dropped by "
                     "the source), audio %lld frames, %.1f MB, %.2f Mbit/s in, %d client%s, "
                     "%.2f Mbit/s out, %llu packets dropped, %llu key-frame requests%s\n",
                     up / 3600, up / 60 % 60, up % 60, frames, (frames - last_frames) / seconds,
                     source->DroppedFrames(), counters.audio_frames.load(), bytes / 1e6,
                     (bytes - last_bytes) * 8 / 1e6 / seconds, stats.playing,
                     stats.playing == 1 ? "" : "s",
                     (stats.bytes_sent - last_sent) * 8 / 1e6 / seconds, stats.packets_dropped,
                     stats.key_frame_requests, ReceptionSummary(stats.session_stats).c_str());
        for (const auto& pusher : pushers) {
          const QZRtspPushStats push = pusher->GetStats();
          std::fprintf(
              stderr, "  push %s: %s%s%s, %llu reconnects, %.1f MB sent, %llu dropped%s\n",
              push.url.c_str(), push.state.c_str(),
              push.retry_in_s > 0 ? (" in " + std::to_string(push.retry_in_s) + " s").c_str() : "",
              push.last_error.empty() || push.recording ? ""
                                                        : (" (" + push.last_error + ")").c_str(),
              push.reconnects, push.bytes_sent / 1e6, push.packets_dropped,
              push.receiver_reports == 0 ? ""
                                         : ReceptionText("relay reports", push.fraction_lost * 100,
                                                         push.jitter_ms, push.rtt_ms)
                                               .c_str());
        }
      }
      last_bytes = bytes;
      last_frames = frames;
      last_sent = stats.bytes_sent;
      last_status = now;
      while (next_status <= now) {  // one line, however late this turn is
        next_status += 1000;
      }
    }
    if (options.duration > 0 && now - start >= options.duration * 1000LL) {
      break;
    }
  }
  source->Stop();
  // What is left when the publisher stops: a client that went away must
  // have left no connection or session behind. Each server and stream is
  // named by its port.
  std::fprintf(stderr, "source: %lld video frames, %lld dropped by the source, %lld audio frames\n",
               counters.video_frames.load(), source->DroppedFrames(), counters.audio_frames.load());
  PrintServerCounters("servers", Summarize(servers));
  for (const auto& server : servers) {
    const QZRtspServerStats stats = server->GetStats();
    const std::string port = std::to_string(server->Port());
    if (servers.size() > 1) {
      PrintServerCounters(("server on port " + port).c_str(), stats);
    }
    for (const auto& stream : stats.stream_stats) {
      const WindowBase& base = delay_base[WindowKey(*server, stream.name)];
      const DelayWindow posted = Window(stream.write_delay, base.write);
      const DelayWindow pushed = Window(stream.push_delay, base.push);
      std::fprintf(stderr,
                   "stream %s: port %s, %llu records written to every client after %d s, "
                   "posted-to-written delay p50 %.3f ms, p99 %.3f ms (whole run: max %.3f ms), "
                   "pushed-to-written p50 %.3f ms, p99 %.3f ms (whole run: max %.3f ms)\n",
                   stream.name.c_str(), port.c_str(), posted.records, options.stats_after,
                   posted.p50_ms, posted.p99_ms, stream.write_delay.max_us / 1000.0, pushed.p50_ms,
                   pushed.p99_ms, stream.push_delay.max_us / 1000.0);
    }
  }
  for (const auto& pusher : pushers) {
    const QZRtspPushStats push = pusher->GetStats();
    std::fprintf(
        stderr,
        "push %s: %s, %llu attempts, %llu recordings, %llu packets sent (%llu bytes), "
        "%llu dropped, %llu key-frame requests, posted-to-written delay p50 %.3f ms, "
        "p99 %.3f ms, max %.3f ms, pushed-to-written p50 %.3f ms, p99 %.3f ms, "
        "%llu receiver reports%s, last error: %s\n",
        push.url.c_str(), push.state.c_str(), push.attempts, push.recordings, push.packets_sent,
        push.bytes_sent, push.packets_dropped, push.key_frame_requests,
        push.write_delay.p50_us / 1000.0, push.write_delay.p99_us / 1000.0,
        push.write_delay.max_us / 1000.0, push.push_delay.p50_us / 1000.0,
        push.push_delay.p99_us / 1000.0, push.receiver_reports,
        push.receiver_reports == 0
            ? ""
            : ReceptionText("relay reports", push.fraction_lost * 100, push.jitter_ms, push.rtt_ms)
                  .c_str(),
        push.last_error.empty() ? "none" : push.last_error.c_str());
  }
  sinker.Stop();
  for (auto& pusher : pushers) {
    pusher->Stop();
  }
  for (auto& server : servers) {
    server->Stop();
  }
  events.UnInit();
  return 0;
}
