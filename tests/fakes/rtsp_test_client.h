// A blocking RTSP client over a loopback TCP socket, plain or inside TLS,
// for tests and the soak program: sends raw bytes, reads responses and
// collects the interleaved frames that arrive on the way. One thread per
// client.
#ifndef TESTS_FAKES_RTSP_TEST_CLIENT_H_
#define TESTS_FAKES_RTSP_TEST_CLIENT_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

namespace qz_test {

struct Response {
  int status = -1;  // -1: connection closed (or no answer), -2: nothing within the wait
  std::map<std::string, std::string> headers;
  std::string body;
  // The value of header `name`, "" when it has none.
  std::string Header(const std::string& name) const {
    auto it = headers.find(name);
    return it == headers.end() ? std::string() : it->second;
  }
};

// The status and headers of a response's head (its text before the blank line).
Response ParseHead(const std::string& head);

class Client {
 public:
  // Connects to 127.0.0.1:`port`, from `source` when given (any 127/8
  // address is this host: clients that look like other hosts). With `tls`,
  // runs a TLS handshake (whatever `tls` allows) and speaks inside it;
  // connected() is false when the handshake failed.
  explicit Client(uint16_t port, const std::string& source = "", SSL_CTX* tls = nullptr);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool connected() const { return connected_; }
  // The port this client's end of the connection is bound to.
  uint16_t local_port() const;
  // Sends all of `bytes` (or as much as the peer takes before closing).
  void Send(const std::string& bytes);
  // Reads the next response, collecting interleaved frames on the way.
  Response Read(int wait_ms = 3000);
  // Reads for `ms` and returns the interleaved frames that arrived.
  std::vector<std::pair<uint8_t, std::string>> Frames(int ms);
  // Closes with a TCP reset instead of an orderly shutdown.
  void Reset();

  static std::string Request(const std::string& method,
                             const std::string& url,
                             int cseq,
                             const std::string& extra = "");

 private:
  // >0 bytes read, 0 closed, <0 nothing within the wait.
  int Fill(int wait_ms);

  int fd_;
  SSL* ssl_ = nullptr;
  bool connected_;
  std::string buffer_;
  std::vector<std::pair<uint8_t, std::string>> frames_;
};

// The id of a Session header, without its parameters.
std::string SessionId(const Response& r);

}  // namespace qz_test

#endif  // TESTS_FAKES_RTSP_TEST_CLIENT_H_
