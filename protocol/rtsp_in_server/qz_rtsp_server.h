// QZRtspServer: an RTSP 1.0 server that runs inside the publisher's process
// and serves every stream a publisher offers it through the registry.
//
//   QZRtspServer server;                  // options: see QZRtspServerOptions
//   server.Start();                       // listens; its own network thread
//   sinker.SetRtspServers({server.Handle()});
//   ...                                   // clients play rtsp://host:8554/<stream name>
//                                         // (and rtsps://host:<tls_port>/<name>, see tls_port)
//   server.Stop();                        // closes every session and joins
//
// The server registers under Handle() for its whole lifetime; pipes offered
// while it is stopped are refused. All public operations are thread-safe.
#ifndef PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_SERVER_H_
#define PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_SERVER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qz_rtsp_internal_server {

struct QZRtspServerOptions {
  // Address to listen on; empty means every IPv4 and IPv6 interface.
  std::string bind_address;
  // TCP port for RTSP; 0 picks a free one (see Port()).
  uint16_t port = 8554;
  // Host put into the URLs handed to the application (a name or an
  // address; IPv6 without brackets), and then the only one. Empty: the bound
  // address, or, bound to every interface, the device's address a viewer is
  // likeliest to reach (see CandidateUrls).
  std::string url_host;
  size_t rtp_payload_size = 1400;
  // A session nothing was heard of for this long ends. A TCP session is
  // heard of while its client reads its media; a connection whose writes
  // stay blocked this long is closed, whatever else it sends.
  int session_timeout_s = 60;
  // Connections. When all are taken, the oldest one without a playing
  // session makes room for a newcomer; with none such, newcomers are
  // answered 503 and closed. One address holds at most
  // `max_clients_per_address` of them (0: no such cap), so that one host
  // cannot take every slot.
  int max_clients = 64;
  int max_clients_per_address = 8;
  int max_sessions_per_connection = 8;
  // A connection without a session this long after it was accepted (or
  // after its last session ended) is closed; only a successful SETUP stops
  // this clock, not keep-alives, refused requests or blank lines.
  int idle_timeout_s = 30;
  // A session playing over UDP from whose client nothing arrives on the
  // RTP/RTCP ports for this long (real clients send a receiver report every
  // few seconds) ends: media is only sent to an address that answers, so the
  // server cannot be aimed at a third party or used as an amplifier.
  int udp_silence_timeout_s = 20;
  // A request (or interleaved frame) begun but not finished after this long
  // closes its connection: a client that sends a byte a second cannot hold
  // a connection open.
  int request_timeout_ms = 10000;
  // Largest request head (request line and headers) and body, and most
  // header lines; a request over any of them is answered 400 and closed.
  size_t max_request_bytes = 64 * 1024;
  size_t max_headers = 64;
  // How long DESCRIBE waits for parameter sets before answering 503.
  int describe_wait_ms = 3000;
  // Keep each stream's packets from the latest key frame on, so that a new
  // viewer gets a picture at once. Off: new viewers wait for the next key
  // frame.
  bool gop_cache = true;
  // Send a UDP client's packets of one frame as one segmented message
  // (UDP_SEGMENT, Linux 4.18 and later): the kernel walks its stack once
  // per frame instead of once per packet. Switched off by itself where the
  // kernel or the network device cannot segment; the portable socket path
  // (other systems, -DQZ_PORTABLE_NET=ON) never segments.
  bool udp_gso = true;
  // A TCP client's kernel send buffer holds about this much of its streams
  // (sized from their bit rate, at least 64 KiB): a client that cannot keep
  // up falls behind in the server's shared packet ring, where it is cut
  // back to a key frame, instead of in a deep socket buffer that holds
  // seconds of stale video. 0 leaves the buffer to the kernel.
  int tcp_send_buffer_ms = 500;
  // Authentication, off while `auth_user` is empty: every request but
  // OPTIONS then needs Digest credentials (RFC 2617 / 7616), or Basic ones
  // when `allow_basic_auth` is set (they cross the network in clear text).
  std::string auth_user;
  std::string auth_password;
  std::string auth_realm = "qz-rtsp";
  bool allow_basic_auth = false;
  // A Digest nonce is good this long on its connection; then the client is
  // challenged again with stale=true and answers without asking its user.
  int auth_nonce_lifetime_s = 60;
  // RTSP tunnelled through HTTP on the RTSP port, for viewers behind
  // proxies and firewalls that pass only HTTP (ffmpeg -rtsp_transport http,
  // GStreamer's rtsph:// URLs, VLC when plain RTSP fails, ONVIF clients). A
  // connection whose first bytes are "GET " or "POST " is one half of a
  // tunnel: the GET is answered "HTTP/1.0 200 OK" and carries every answer
  // and the interleaved media; the POST, never answered, carries the
  // requests in base64. The halves pair by their x-sessioncookie, only from
  // one address, and close together. Each half counts as a connection
  // toward the limits above; a POST that finds no GET closes at the idle
  // limit. Off: such connections are answered 400 like any malformed
  // request.
  bool http_tunnel = false;
  // A second TCP port that serves the same (tunnels, and plain RTSP too),
  // for networks that let only web ports through (80, 8080): -1 for none,
  // 0 for a free one (see HttpTunnelPort()). Tunnels are served on it
  // whatever `http_tunnel` says.
  int http_tunnel_port = -1;
  // RTSP over TLS (rtsps://) on a TCP port of its own: -1 for none, 0 for a
  // free one (see TlsPort()). Its connections are served like the RTSP
  // port's (authentication, sessions, media interleaved in the connection,
  // HTTP tunnels when `http_tunnel` is on) inside TLS 1.2 or 1.3, with
  // forward-secret AEAD cipher suites, without renegotiation or
  // compression. They count toward the same connection limits; a TLS
  // handshake must end within `request_timeout_ms`. UDP media is not
  // encrypted: a SETUP over TLS should ask for interleaved TCP.
  int tls_port = -1;
  // The certificate (PEM; a chain, the server's own first) and its private
  // key (PEM, not protected by a passphrase), each as text or, when the
  // text is empty, as a file. Start() fails, saying why in the log, when
  // the TLS port is asked for and they cannot be loaded or do not match.
  std::string tls_cert_pem;
  std::string tls_key_pem;
  std::string tls_cert_file;
  std::string tls_key_file;
  // Multicast (RFC 2326 12.39), IPv4 only: a SETUP that asks for
  // "RTP/AVP;multicast" joins its stream's group, which all the stream's
  // multicast viewers share: each packet is sent once, to the group,
  // whatever their number. A stream is given a group address when its first
  // multicast viewer sets up and gives it back when its last one leaves
  // (TEARDOWN, expiry, its connection closed); each of its tracks has a port
  // pair (RTP even, RTCP the next). Address, ports and TTL are the server's:
  // a client's destination, port and ttl are not used, the answer names
  // what the group is sent to, and no client can aim the server's multicast
  // at another address (values out of range, a port pair past 65535 or a
  // TTL over 255, make the request malformed: 461). A viewer that joins a
  // group already sending starts at its next key frame, which is asked for
  // (on_key_frame_request). Members are kept by the RTSP keep-alives their
  // clients send (GET_PARAMETER or OPTIONS, within session_timeout_s); their
  // receiver reports go to the group and are not read. Off: a SETUP that
  // asks for multicast only is answered 461 Unsupported Transport, and
  // clients fall back to unicast. Start() fails, and logs why, on values
  // below that cannot be served or with an IPv6 `bind_address`. Servers on
  // one network need ranges that do not overlap.
  bool multicast = false;
  // The group addresses: `multicast_group_count` from this one on (IPv4
  // multicast, not 224.0.0.x; the default lies in the organisation-local
  // scope 239.255.0.0/16, which routers keep within a site). A stream's is
  // drawn at random among the free ones, so that two devices on one network
  // seldom pick the same; with all taken, a multicast SETUP is answered 453.
  std::string multicast_first_group = "239.255.42.0";
  int multicast_group_count = 64;
  // Group i's track t is sent RTP to port multicast_port + 4 * i + 2 * t
  // and RTCP to the next: the groups' ports differ too, so that a receiver
  // that binds its port on every address gets no other group's packets.
  // Even, from 1024, and every group's ports below 65536.
  int multicast_port = 5004;
  // Hops the group's packets may cross (1: the local network only): 1..255.
  int multicast_ttl = 16;
  // Called when a viewer waits for a key frame: it joined and none is held
  // (or joined a multicast group already sending), or it fell behind and
  // was cut back to one. An app asks its video encoder for an IDR picture
  // here. At most once a second per stream (one needed sooner is asked for
  // when the second ends); runs on the server's network thread and must
  // return quickly. May be empty. It may call Stop() (the server then stops
  // when it returns), but must not destroy the server.
  std::function<void(const std::string& stream_name)> on_key_frame_request;
};

// Packets a server did not deliver, by reason.
struct QZRtspDropCounts {
  // A client fell so far behind that the stream's cache no longer held what
  // it had not read: it skipped ahead to a key frame.
  unsigned long long slow_reader = 0;
  // UDP: the socket buffer was full (or the send failed) for that client.
  unsigned long long socket_full = 0;
  // RTCP reports not queued for a TCP client that does not read its answers.
  unsigned long long control_backlog = 0;

  unsigned long long total() const { return slow_reader + socket_full + control_backlog; }
};

// Percentiles of a delay, in µs.
struct QZRtspDelayStats {
  unsigned long long samples = 0;
  long long p50_us = 0;
  long long p99_us = 0;
  long long max_us = 0;
  // Per bucket (DelayHistogram's), for figures over a window: subtract an
  // earlier copy and read the difference with PercentileOfCountsUs().
  std::vector<unsigned long long> counts;
};

struct QZRtspStreamStats {
  std::string name;
  int sessions = 0;
  int playing = 0;
  unsigned long long bytes_sent = 0;  // RTP and RTCP, every client
  unsigned long long packets_sent = 0;
  // Media writes to TCP clients (one sendmsg() each unless the socket was
  // full); records posted together share one.
  unsigned long long tcp_writes = 0;
  QZRtspDropCounts dropped;
  unsigned long long key_frame_requests = 0;  // calls of on_key_frame_request
  unsigned long long rtp_packets_built = 0;   // once per stream, shared by its clients
  // Frames not taken from the publisher because the server's network thread
  // stalled (and, for video, what followed until the next key frame).
  unsigned long long frames_dropped_stalled = 0;
  unsigned long long cache_bytes = 0;  // held for viewers that join
  // Delays up to a record's last RTP packet handed to the kernel for every
  // client that keeps up, over the stream's life (records a client skipped
  // or never got are not counted): from the record posted into the stream's
  // pipe, and from its frame pushed into the publisher's sinker (records
  // built from frames that carry their push time).
  QZRtspDelayStats write_delay;
  QZRtspDelayStats push_delay;
};

// One session as its client's receiver reports (RFC 3550 6.4.2) describe
// it: the latest report of any of its tracks.
struct QZRtspSessionStats {
  std::string id;
  std::string stream;
  std::string client;      // the client's address
  bool tcp = false;        // interleaved in the RTSP connection, else UDP
  bool multicast = false;  // a member of its stream's multicast group (which is sent its media)
  bool playing = false;
  unsigned long long bytes_sent = 0;
  unsigned long long packets_sent = 0;
  unsigned long long packets_dropped = 0;
  unsigned long long receiver_reports = 0;  // 0: the figures below are not known
  double fraction_lost = 0;                 // since the client's previous report, 0..1
  long long cumulative_lost = 0;
  double jitter_ms = 0;
  double rtt_ms = -1;  // -1: no report echoed one of the server's sender reports
};

struct QZRtspServerStats {
  int connections = 0;
  int sessions = 0;
  int playing = 0;
  int streams = 0;
  // Since Start(), streams that are gone included.
  unsigned long long bytes_sent = 0;
  unsigned long long packets_sent = 0;
  unsigned long long tcp_writes = 0;
  unsigned long long packets_dropped = 0;  // dropped.total()
  QZRtspDropCounts dropped;
  unsigned long long key_frame_requests = 0;
  // Connections refused or closed by a limit: clients, request size, time.
  unsigned long long connections_refused = 0;
  std::vector<QZRtspStreamStats> stream_stats;  // the streams served now
  // The sessions as of the server's last tick (at most half a second old).
  std::vector<QZRtspSessionStats> session_stats;
};

class QZRtspServer {
 public:
  explicit QZRtspServer(QZRtspServerOptions options = QZRtspServerOptions());
  ~QZRtspServer();

  QZRtspServer(const QZRtspServer&) = delete;
  QZRtspServer& operator=(const QZRtspServer&) = delete;

  // Opens the ports and starts the network thread. False (and nothing left
  // running) when the port cannot be opened.
  bool Start();
  // Closes every connection and session, forgets the streams, joins.
  void Stop();
  bool IsRunning() const;

  // The handle to give RtspSinker::SetRtspServers; stable while the server lives.
  void* Handle() { return this; }
  // The TCP port listened on (useful with port 0), or 0 when stopped.
  uint16_t Port() const;
  // The separate HTTP tunnel port listened on, or 0 (none, or stopped).
  uint16_t HttpTunnelPort() const;
  // The TLS port listened on, or 0 (none, or stopped).
  uint16_t TlsPort() const;
  // "rtsp://<host>:<port>/<stream_name>", the first of CandidateUrls(); the
  // URL a pipe is given when it is accepted. Empty while stopped.
  std::string UrlFor(const std::string& stream_name) const;
  // Every URL a viewer may reach `stream_name` at, best first, for an app
  // that shows them all or lets its user pick. With `url_host` set, or bound
  // to one address, that one. Bound to every interface, one per address of
  // the device, worked out anew at each call (call it again when the
  // network changes):
  //   - Wi-Fi and Ethernet before other interfaces, virtual bridges after
  //     them, cellular links and VPN tunnels last (behind the carrier's NAT,
  //     or not on the viewer's LAN);
  //   - on each, private IPv4 (10/8, 172.16/12, 192.168/16) first, then
  //     other IPv4, then carrier-grade NAT (100.64/10), then IPv6 global and
  //     unique-local addresses, in brackets ("rtsp://[2001:db8::1]:8554/x");
  //   - loopback last ("rtsp://127.0.0.1:8554/x" when nothing else is up).
  // Link-local addresses are left out: a URL cannot carry their zone.
  // Empty while stopped.
  std::vector<std::string> CandidateUrls(const std::string& stream_name) const;
  // "rtsps://<host>:<tls port>/<stream_name>", on the host UrlFor() names;
  // empty without a TLS port or while stopped.
  std::string TlsUrlFor(const std::string& stream_name) const;

  // A consistent-enough snapshot: counters are read one by one. Any thread.
  QZRtspServerStats GetStats() const;

  class Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_SERVER_H_
