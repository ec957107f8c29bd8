// Command-line options of qz_rtsp_publish.
#ifndef TOOLS_QZ_RTSP_PUBLISH_OPTIONS_H_
#define TOOLS_QZ_RTSP_PUBLISH_OPTIONS_H_

#include <string>
#include <vector>

namespace qz_tools {

struct PublishOptions {
  std::string input;           // empty: the built-in test source
  std::string video = "h264";  // built-in source: h264 or h265
  std::string audio = "aac";   // built-in source: aac, pcma, pcmu or none
  int width = 1280;
  int height = 720;
  int fps = 25;
  int kbitrate = 2000;
  int gop_seconds = 2;
  int port = 8554;
  int servers = 1;                  // servers on port, port+1, ... (0: push only)
  std::string bind;                 // empty: all interfaces
  int max_clients = 64;             // connections per server
  int max_clients_per_address = 8;  // of them from one address (0: no cap)
  bool gop_cache = true;            // new viewers start at the latest key frame
  bool udp_gso = true;              // UDP media as segmented messages
  bool http_tunnel = false;         // RTSP over HTTP (GET/POST) on the RTSP port
  int http_port = -1;               // and on this port of its own (-1: none)
  int tls_port = -1;                // RTSP over TLS on this port (-1: none)
  std::string tls_cert;             // PEM files; both empty: a self-signed
  std::string tls_key;              //   certificate kept in tls_dir
  std::string tls_dir;              // empty: ~/.config/qz_rtsp_publish
  bool multicast = false;           // RTP/AVP;multicast to a group per stream
  std::string multicast_group;      // the first group address; empty: the server's default
  int multicast_ttl = 16;
  std::vector<std::string> push;     // relays to push the stream to (ANNOUNCE/RECORD)
  bool push_udp = false;             // RTP to them over UDP rather than interleaved
  std::string push_tls_ca;           // rtsps:// relays: CAs to trust (PEM file) ...
  std::string push_tls_fingerprint;  // ... or the relay's certificate, pinned
  bool push_tls_insecure = false;    // ... or any certificate
  bool push_basic_in_clear = false;  // answer Basic-only relays over plain rtsp://
  std::string name = "live";
  std::string user;  // RTSP authentication (Digest); empty: none
  std::string password;
  int nonce_lifetime = 60;  // seconds a Digest nonce is good
  std::string user_data;    // text carried as SEI
  int user_data_every = 2;  // seconds
  int duration = 0;         // seconds; 0 runs until Ctrl-C
  int stats_after = 0;      // seconds before the summary's delay window opens
  bool loop = true;         // file source
  bool quiet = false;       // no status line
  bool verbose = false;     // FFmpeg's and the encoders' informational log
  int slow_encoder_ms = 0;  // built-in source: added to each video frame's encoding
};

// `address` (IPv4, dotted) plus `n`, dotted; empty when it does not parse
// or passes 255.255.255.255.
std::string OffsetIPv4(const std::string& address, long long n);

// Parses argv. On --help prints usage and sets *exit_code to 0; on a bad
// option prints a one-line error and sets it to 2; returns false in both.
bool ParseOptions(int argc, char** argv, PublishOptions& options, int* exit_code);

}  // namespace qz_tools

#endif  // TOOLS_QZ_RTSP_PUBLISH_OPTIONS_H_
