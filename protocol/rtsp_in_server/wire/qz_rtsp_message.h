// RTSP 1.0 message codec (RFC 2326): an incremental parser with hard size
// limits (of requests, for the server; of responses, and the odd request a
// server sends, for a client), and writers of both. No sockets, no session
// knowledge.
#ifndef PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_MESSAGE_H_
#define PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_MESSAGE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qz_rtsp_internal_server {

// A request, or with a status (a client's parser), a response.
struct RtspRequest {
  std::string method;
  std::string uri;
  std::string version;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  int status = 0;      // a response's status code (100..999); 0: a request
  std::string reason;  // a response's reason phrase (may be empty)

  // Value of the first header named `name` (case-insensitive), or null.
  const std::string* Header(const std::string& name) const;
  // Number of headers named `name`.
  int HeaderCount(const std::string& name) const;
};

struct RtspLimits {
  size_t max_line = 8 * 1024;  // request line or one header line
  size_t max_header_bytes = 64 * 1024;
  size_t max_headers = 64;
  size_t max_body = 64 * 1024;
};

// What the next bytes of a connection hold.
enum class RtspParseResult {
  kNeedMore,     // nothing complete yet
  kRequest,      // a request, in request()
  kResponse,     // a response, in request() (status set): a client's parser only
  kInterleaved,  // a '$' frame: channel() and payload()
  kBadRequest,   // malformed or over a limit: answer 400 and close
};

// Feed bytes as they arrive; call Next() until it says kNeedMore. Requests
// pipelined in one read, and requests split at any byte, both work. Memory
// stays bounded by the limits: bytes beyond them are never buffered.
class RtspRequestParser {
 public:
  // `responses`: the parser of a client, which reads responses (a start
  // line "RTSP/1.0 200 OK") and also requests (a server may send one).
  explicit RtspRequestParser(RtspLimits limits = RtspLimits(), bool responses = false)
      : limits_(limits), responses_(responses) {}

  void Feed(const char* data, size_t size);
  RtspParseResult Next();

  const RtspRequest& request() const { return request_; }
  uint8_t channel() const { return channel_; }
  const std::string& payload() const { return payload_; }
  // Bytes held but not parsed yet.
  size_t buffered() const { return buffer_.size() - pos_; }
  // Why the last kBadRequest was returned.
  const std::string& error() const { return error_; }

 private:
  RtspParseResult Fail(const char* why);
  void Compact();

  RtspLimits limits_;
  bool responses_;
  std::string buffer_;
  size_t pos_ = 0;
  RtspRequest request_;
  uint8_t channel_ = 0;
  std::string payload_;
  std::string error_;
  bool failed_ = false;
};

// Writes "RTSP/1.0 <code> <reason>", CSeq when given (not empty), the
// headers, Content-Length when there is a body, and the body.
std::string WriteRtspResponse(int code,
                              const std::string& cseq,
                              const std::vector<std::pair<std::string, std::string>>& headers,
                              const std::string& body = std::string());

const char* RtspReason(int code);

// Writes "<method> <uri> RTSP/1.0", CSeq, the headers, Content-Length when
// there is a body, and the body.
std::string WriteRtspRequest(const std::string& method,
                             const std::string& uri,
                             int cseq,
                             const std::vector<std::pair<std::string, std::string>>& headers,
                             const std::string& body = std::string());

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_MESSAGE_H_
