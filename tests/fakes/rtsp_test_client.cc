#include "tests/fakes/rtsp_test_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <regex>

#include "protocol/rtsp_in_server/net/platform/qz_net_platform.h"

namespace qz_test {

namespace {

// Waits up to `wait_ms` for `fd` to be readable (`events` POLLIN) or
// writable (POLLOUT); false when it is not.
bool Ready(int fd, short events, int wait_ms) {
  pollfd p{fd, events, 0};
  return poll(&p, 1, wait_ms) > 0;
}

}  // namespace

Client::Client(uint16_t port, const std::string& source, SSL_CTX* tls) {
  fd_ = socket(AF_INET, SOCK_STREAM, 0);
  // A server that resets the connection must fail the test, not kill it.
  qz_rtsp_internal_server::SuppressSigpipe(fd_);
  sockaddr_in from{};
  from.sin_family = AF_INET;
  if (!source.empty() && inet_pton(AF_INET, source.c_str(), &from.sin_addr) == 1) {
    bind(fd_, reinterpret_cast<sockaddr*>(&from), sizeof(from));
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
  if (connected_ && tls != nullptr) {
    // The handshake blocks (within 5 s); then the socket does not, so that a
    // record without data (a session ticket) never stalls a read.
    timeval limit{5, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    ssl_ = SSL_new(tls);
    SSL_set_fd(ssl_, fd_);
    ERR_clear_error();
    connected_ = SSL_connect(ssl_) == 1;
    ERR_clear_error();
    fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
  }
}

uint16_t Client::local_port() const {
  sockaddr_in addr{};
  socklen_t size = sizeof(addr);
  getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &size);
  return ntohs(addr.sin_port);
}

Client::~Client() {
  SSL_free(ssl_);
  if (fd_ >= 0) {
    close(fd_);
  }
}

void Client::Reset() {
  linger l{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &l, sizeof(l));
  close(fd_);
  fd_ = -1;
}

void Client::Send(const std::string& bytes) {
  size_t sent = 0;
  while (ssl_ != nullptr && fd_ >= 0 && sent < bytes.size()) {
    ERR_clear_error();
    const int n = SSL_write(ssl_, bytes.data() + sent, static_cast<int>(bytes.size() - sent));
    const int error = n > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl_, n);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
      Ready(fd_, error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, 1000);
    } else if (n <= 0) {
      return;
    } else {
      sent += static_cast<size_t>(n);
    }
  }
  while (ssl_ == nullptr && fd_ >= 0 && sent < bytes.size()) {
    const ssize_t n =
        qz_rtsp_internal_server::SendWithoutSigpipe(fd_, bytes.data() + sent, bytes.size() - sent);
    if (n <= 0)
      return;
    sent += static_cast<size_t>(n);
  }
}

Response ParseHead(const std::string& head) {
  static const std::regex status_re("^(?:RTSP/1\\.0|HTTP/1\\.[01]) (\\d{3})");
  static const std::regex header_re("\r\n([^:\r\n]+): ([^\r\n]*)");
  Response r;
  std::smatch m;
  if (std::regex_search(head, m, status_re))
    r.status = std::stoi(m[1]);
  for (auto it = std::sregex_iterator(head.begin(), head.end(), header_re);
       it != std::sregex_iterator(); ++it) {
    r.headers[(*it)[1]] = (*it)[2];
  }
  return r;
}

Response Client::Read(int wait_ms) {
  Response r;
  for (;;) {
    // Interleaved frames first.
    while (buffer_.size() >= 4 && buffer_[0] == '$') {
      const size_t len = (static_cast<uint8_t>(buffer_[2]) << 8) | static_cast<uint8_t>(buffer_[3]);
      if (buffer_.size() < 4 + len)
        break;
      frames_.push_back({static_cast<uint8_t>(buffer_[1]), buffer_.substr(4, len)});
      buffer_.erase(0, 4 + len);
    }
    const size_t end = buffer_.find("\r\n\r\n");
    if (!buffer_.empty() && buffer_[0] != '$' && end != std::string::npos) {
      r = ParseHead(buffer_.substr(0, end));
      const size_t body_len =
          r.headers.count("Content-Length") ? std::stoul(r.headers["Content-Length"]) : 0;
      if (buffer_.size() >= end + 4 + body_len) {
        r.body = buffer_.substr(end + 4, body_len);
        buffer_.erase(0, end + 4 + body_len);
        return r;
      }
    }
    const int got = Fill(wait_ms);
    if (got == 0) {
      r.status = -1;
      return r;
    }
    if (got < 0) {
      r.status = -2;
      return r;
    }
  }
}

std::vector<std::pair<uint8_t, std::string>> Client::Frames(int ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < deadline) {
    if (Fill(20) == 0)
      break;
    Read(0);
  }
  auto out = std::move(frames_);
  frames_.clear();
  return out;
}

std::string Client::Request(const std::string& method,
                            const std::string& url,
                            int cseq,
                            const std::string& extra) {
  return method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq) + "\r\n" + extra +
         "\r\n";
}

int Client::Fill(int wait_ms) {
  if (fd_ < 0)
    return 0;
  char buf[65536];
  if (ssl_ != nullptr) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
    for (;;) {
      ERR_clear_error();
      const int n = SSL_read(ssl_, buf, sizeof(buf));
      if (n > 0) {
        buffer_.append(buf, static_cast<size_t>(n));
        return n;
      }
      if (SSL_get_error(ssl_, n) != SSL_ERROR_WANT_READ) {
        ERR_clear_error();
        return 0;  // closed, or broken
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() < 0 || !Ready(fd_, POLLIN, static_cast<int>(left.count())))
        return -1;
    }
  }
  if (!Ready(fd_, POLLIN, wait_ms))
    return -1;
  const ssize_t n = recv(fd_, buf, sizeof(buf), 0);
  if (n <= 0)
    return 0;
  buffer_.append(buf, static_cast<size_t>(n));
  return static_cast<int>(n);
}

std::string SessionId(const Response& r) {
  const std::string session = r.Header("Session");
  return session.substr(0, session.find(';'));
}

}  // namespace qz_test
