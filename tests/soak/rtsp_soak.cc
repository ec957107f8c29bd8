// qz_rtsp_soak: hundreds of RTSP clients misbehaving at once against a live
// server. Each client thread loops over random scenarios (TCP and UDP play,
// pause and resume, teardown or not, a reset mid-play, a request dropped
// half-way, garbage) until the time is up, and checks every answer a
// well-formed request gets. Prints a status line a second; exits 1 when an
// answer was wrong or a player got no media.
//
//   qz_rtsp_soak --url rtsp://127.0.0.1:8554/live --clients 200 --seconds 60
//
// Clients connect from 127.0.1.2 and up, two to an address, as players on
// other hosts would.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/fakes/rtsp_test_client.h"

namespace {

using qz_test::Client;
using qz_test::Response;

struct Totals {
  std::atomic<long long> scenarios{0};
  std::atomic<long long> plays{0};
  std::atomic<long long> media_packets{0};
  std::atomic<long long> unexpected{0};
  std::atomic<long long> starved{0};
  std::atomic<int> active{0};
};

Totals g_totals;
std::mutex g_print_mutex;

void Unexpected(const std::string& what, int status) {
  if (++g_totals.unexpected <= 20) {
    std::lock_guard<std::mutex> lock(g_print_mutex);
    std::printf("unexpected: %s answered %d\n", what.c_str(), status);
  }
}

// A UDP socket on a free port of loopback address `at` (where the server
// sends: the address of the client's RTSP connection).
struct UdpPort {
  explicit UdpPort(const std::string& at) {
    fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    inet_pton(AF_INET, at.c_str(), &addr.sin_addr);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    socklen_t len = sizeof(addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    port = ntohs(addr.sin_port);
  }
  ~UdpPort() { close(fd); }
  // Packets that arrive within `ms`.
  long long Drain(int ms) {
    long long count = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    char buf[2048];
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 20) > 0 && recv(fd, buf, sizeof(buf), 0) > 0) {
        ++count;
      }
    }
    return count;
  }
  int fd;
  int port = 0;
};

class SoakClient {
 public:
  // Every client connects from an address of its own, shared with one
  // other: the server holds at most a few connections per address.
  SoakClient(uint16_t port, std::string url, int index)
      : port_(port),
        url_(std::move(url)),
        source_("127.0." + std::to_string(1 + index / 500) + "." +
                std::to_string(2 + index % 500 / 2)),
        rng_(7919u * static_cast<unsigned>(index) + 1) {}

  void Run(std::chrono::steady_clock::time_point until) {
    while (std::chrono::steady_clock::now() < until) {
      switch (Pick(0, 9)) {
        case 0:
        case 1:
        case 2:
          Play(/*tcp=*/true);
          break;
        case 3:
        case 4:
          Play(/*tcp=*/false);
          break;
        case 5:
          DropMidRequest();
          break;
        case 6:
          Garbage();
          break;
        default:
          Play(/*tcp=*/Pick(0, 1) == 0);
      }
      ++g_totals.scenarios;
    }
  }

 private:
  int Pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }

  // Sends a request and checks that it is answered `want`.
  bool Expect(Client& c,
              const std::string& method,
              const std::string& url,
              int want,
              const std::string& extra = "") {
    c.Send(Client::Request(method, url, ++cseq_, extra));
    const Response r = c.Read(5000);
    if (r.status != want) {
      Unexpected(method, r.status);
      return false;
    }
    last_ = r;
    return true;
  }

  void Play(bool tcp) {
    Client c(port_, source_);
    if (!c.connected()) {
      Unexpected("connect", -1);
      return;
    }
    ++g_totals.active;
    UdpPort rtp(source_), rtcp(source_);
    std::string session;
    bool ok = Expect(c, "OPTIONS", url_, 200) &&
              Expect(c, "DESCRIBE", url_, 200, "Accept: application/sdp\r\n");
    const int tracks = ok && last_.body.find("m=audio") != std::string::npos ? 2 : 1;
    for (int t = 0; ok && t < tracks; ++t) {
      const std::string transport =
          tcp ? "RTP/AVP/TCP;unicast;interleaved=" + std::to_string(2 * t) + "-" +
                    std::to_string(2 * t + 1)
              : "RTP/AVP;unicast;client_port=" + std::to_string(rtp.port) + "-" +
                    std::to_string(rtcp.port);
      ok = Expect(c, "SETUP", url_ + "/trackID=" + std::to_string(t), 200,
                  "Transport: " + transport + "\r\n" +
                      (session.empty() ? "" : "Session: " + session + "\r\n"));
      session = qz_test::SessionId(last_);
    }
    const std::string with_session = "Session: " + session + "\r\n";
    ok = ok && Expect(c, "PLAY", url_, 200, with_session);
    if (ok) {
      ++g_totals.plays;
      const int ms = Pick(300, 2500);
      // The cached GOP comes at once: a player that gets nothing is starved.
      const long long got = tcp ? static_cast<long long>(c.Frames(ms).size()) : rtp.Drain(ms);
      g_totals.media_packets += got;
      if (got == 0) {
        ++g_totals.starved;
      }
      switch (Pick(0, 4)) {
        case 0:  // pause, resume, tear down
          ok = Expect(c, "PAUSE", url_, 200, with_session) &&
               Expect(c, "PLAY", url_, 200, with_session) &&
               Expect(c, "TEARDOWN", url_, 200, with_session);
          break;
        case 1:  // keep-alive, then leave without a word
          Expect(c, "GET_PARAMETER", url_, 200, with_session);
          break;
        case 2:
          c.Reset();
          break;
        default:
          Expect(c, "TEARDOWN", url_, 200, with_session);
      }
    }
    --g_totals.active;
  }

  void DropMidRequest() {
    Client c(port_, source_);
    const std::string request = Client::Request("DESCRIBE", url_, 1);
    c.Send(request.substr(0, static_cast<size_t>(Pick(1, static_cast<int>(request.size()) - 1))));
    std::this_thread::sleep_for(std::chrono::milliseconds(Pick(0, 200)));
    if (Pick(0, 1) == 0) {
      c.Reset();
    }
  }

  void Garbage() {
    Client c(port_, source_);
    std::string junk(static_cast<size_t>(Pick(1, 4096)), '\0');
    for (char& ch : junk) {
      ch = static_cast<char>(Pick(0, 255));
    }
    junk[0] = 'X';  // not an interleaved frame, which the server may wait on
    junk += "\r\n\r\n";
    c.Send(junk);
    // As patient as every other answer here (Expect): the soak checks what
    // the server answers, not how fast a loaded machine answers it.
    const Response r = c.Read(5000);
    if (r.status != 400 && r.status != -1) {
      Unexpected("garbage", r.status);
    }
  }

  uint16_t port_;
  std::string url_;
  std::string source_;
  std::mt19937 rng_;
  int cseq_ = 0;
  Response last_;
};

}  // namespace

int main(int argc, char** argv) {
  std::string url;
  int clients = 200;
  int seconds = 60;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string arg = argv[i];
    if (arg == "--url") {
      url = argv[i + 1];
    } else if (arg == "--clients") {
      clients = std::atoi(argv[i + 1]);
    } else if (arg == "--seconds") {
      seconds = std::atoi(argv[i + 1]);
    }
  }
  const size_t colon = url.rfind(':');
  const int port = colon == std::string::npos ? 0 : std::atoi(url.c_str() + colon + 1);
  if (url.compare(0, 7, "rtsp://") != 0 || port <= 0 || clients < 1 || seconds < 1) {
    std::fprintf(stderr,
                 "usage: qz_rtsp_soak --url rtsp://127.0.0.1:PORT/NAME [--clients N] "
                 "[--seconds S]\n");
    return 2;
  }
  const auto start = std::chrono::steady_clock::now();
  const auto until = start + std::chrono::seconds(seconds);
  std::vector<std::thread> threads;
  for (int i = 0; i < clients; ++i) {
    threads.emplace_back(
        [port, url, until, i] { SoakClient(static_cast<uint16_t>(port), url, i).Run(until); });
  }
  while (std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const long long t =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start)
            .count();
    std::printf(
        "[%3llds] playing %d, scenarios %lld, plays %lld, media packets %lld, "
        "unexpected %lld, starved %lld\n",
        t, g_totals.active.load(), g_totals.scenarios.load(), g_totals.plays.load(),
        g_totals.media_packets.load(), g_totals.unexpected.load(), g_totals.starved.load());
    std::fflush(stdout);
  }
  for (auto& t : threads) {
    t.join();
  }
  const bool ok = g_totals.unexpected == 0 && g_totals.starved == 0 && g_totals.plays > 0;
  std::printf(
      "%s: %lld scenarios, %lld plays, %lld media packets, %lld unexpected answers, "
      "%lld starved players\n",
      ok ? "ok" : "FAIL", g_totals.scenarios.load(), g_totals.plays.load(),
      g_totals.media_packets.load(), g_totals.unexpected.load(), g_totals.starved.load());
  return ok ? 0 : 1;
}
