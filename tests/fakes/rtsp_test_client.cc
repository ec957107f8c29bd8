#include "tests/fakes/rtsp_test_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <regex>

#include "protocol/rtsp_in_server/net/platform/qz_net_platform.h"

namespace qz_test {

Client::Client(uint16_t port, const std::string& source) {
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
}

uint16_t Client::local_port() const {
  sockaddr_in addr{};
  socklen_t size = sizeof(addr);
  getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &size);
  return ntohs(addr.sin_port);
}

Client::~Client() {
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
  while (fd_ >= 0 && sent < bytes.size()) {
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
  pollfd p{fd_, POLLIN, 0};
  if (poll(&p, 1, wait_ms) <= 0)
    return -1;
  char buf[65536];
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
