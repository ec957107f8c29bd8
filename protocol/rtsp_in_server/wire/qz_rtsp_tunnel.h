// RTSP tunnelled through HTTP (the QuickTime scheme): a client behind a
// proxy that passes only HTTP opens two connections to the RTSP port. A GET
// carries everything the server sends (the HTTP answer, then RTSP answers
// and interleaved media, raw); a POST carries the client's RTSP requests
// and interleaved RTCP, base64-encoded, with no end (its Content-Length,
// 32767 by custom, means nothing and the POST is never answered). The two
// name the same x-sessioncookie. Here: telling such a connection from an
// RTSP one by its first bytes, the HTTP request head of either half, and a
// streaming base64 decoder for the POST's body. No sockets.
#ifndef PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_TUNNEL_H_
#define PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_TUNNEL_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace qz_rtsp_internal_server {

// What the first bytes of a connection are: "GET " or "POST " (an HTTP
// tunnel's half), any other start (RTSP: its methods, GET_PARAMETER among
// them, or an interleaved frame), or too few bytes to tell.
enum class TunnelSniff { kNeedMore, kRtsp, kHttp };
TunnelSniff SniffTunnel(const char* data, size_t size);

struct HttpTunnelHead {
  bool post = false;   // else GET
  std::string path;    // the request target, as sent
  std::string cookie;  // x-sessioncookie
};

// The head of a tunnel's HTTP request, fed as it arrives. Memory is
// bounded by `max_bytes` and the bytes of one Feed(): a head (its blank
// line included) longer than `max_bytes` (headers that never end) fails,
// as does any request that is not a GET or POST naming exactly one
// x-sessioncookie of 1 to 128 visible characters.
class HttpTunnelHeadParser {
 public:
  enum class Result { kNeedMore, kDone, kBad };
  explicit HttpTunnelHeadParser(size_t max_bytes = 8 * 1024) : max_bytes_(max_bytes) {}

  // After kDone or kBad, further bytes are not looked at.
  Result Feed(const char* data, size_t size);

  const HttpTunnelHead& head() const { return head_; }
  // The bytes fed after the head: the start of a POST's body.
  const std::string& rest() const { return rest_; }
  const std::string& error() const { return error_; }

 private:
  Result Fail(const char* why);
  Result Parse(size_t head_end);

  size_t max_bytes_;
  std::string buffer_;
  HttpTunnelHead head_;
  std::string rest_;
  std::string error_;
  Result state_ = Result::kNeedMore;
};

// Base64 (RFC 4648, standard alphabet) decoded as it arrives, with its
// state carried from one read to the next: a quantum may be split anywhere.
// Blanks and line ends are skipped; padding ends a quantum and a new one
// may follow (clients encode each message on its own). Holds at most three
// characters' worth of bits, whatever it is fed.
class Base64StreamDecoder {
 public:
  // Appends what `data` completes to `out`. False, for good, at a character
  // outside the alphabet or misplaced padding.
  bool Decode(const char* data, size_t size, std::string& out);
  bool failed() const { return failed_; }

 private:
  uint32_t bits_ = 0;
  int sextets_ = 0;            // of the current quantum, 0 to 3
  bool awaiting_pad_ = false;  // "xx=" seen: the second '=' must follow
  bool failed_ = false;
};

// The answer to a tunnel's GET: "HTTP/1.0 <code> <reason>" (HTTP/1.0:
// some clients refuse an HTTP/1.1 answer here). 200 names the
// application/x-rtsp-tunnelled stream that follows and forbids caching;
// anything else closes.
std::string WriteHttpTunnelAnswer(int code);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_TUNNEL_H_
