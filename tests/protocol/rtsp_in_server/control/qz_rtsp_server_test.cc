// The server over real loopback sockets: what only the sockets, the kernel and
// the network thread show. A player over TCP and one over UDP with RTCP,
// bytes as a connection delivers them, the limits on requests and their time,
// the send buffer's size, pipes offered and withdrawn through the manager,
// the URLs handed out, statistics, Stop and Start (from a callback, on the
// same port), and RTSP tunnelled through HTTP. What the server answers and
// sends is tested on fakes in qz_rtsp_core_test.cc.
#include "protocol/rtsp_in_server/qz_rtsp_server.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"
#include "tests/fakes/fake_rtsp_core.h"
#include "tests/fakes/loopback_server.h"
#include "tests/fakes/rtsp_test_client.h"
#include "tests/fakes/test_support.h"
#include "utility/qz_base64.h"

namespace qz_rtsp_internal_server {
namespace {

using Bytes = std::vector<uint8_t>;
using qz_test::Client;
using qz_test::Response;
using qz_test::WaitFor;

std::string Base64(const std::string& bytes) {
  return qz_utility::Base64Encode(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

using ServerTest = LoopbackServerTest;

// The size of the send buffer of the server's end of `c`'s connection (the
// server runs in this process), or -1. The port sits at the same place in
// IPv4 and IPv6 addresses.
int SendBufferOf(const Client& c) {
  for (int fd = 3; fd < 1024; ++fd) {
    sockaddr_storage peer{};
    socklen_t size = sizeof(peer);
    int bytes = -1;
    socklen_t bytes_size = sizeof(bytes);
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
        ntohs(reinterpret_cast<sockaddr_in*>(&peer)->sin_port) == c.local_port() &&
        getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, &bytes_size) == 0) {
      return bytes;
    }
  }
  return -1;
}

// A TCP and a UDP player of one stream, end to end. The TCP one gets media
// interleaved in its connection. The UDP one, on two ports of its own, gets
// media on the first, and its receiver report, sent from the second to the
// server's RTCP port, reaches its session's statistics (what the report
// says is checked on fakes in qz_rtsp_core_test.cc).
// GetStats() counts both as playing (after a tick), what each was sent, and
// the delays from a record's posting (and from the push time only video
// carries) to its last write, timed by the real writes' completions. The TCP player's send buffer
// holds about half a second of the stream (the test stream is slow, so the 64 KiB floor applies:
// Linux reports twice what was asked). Players that reset their connections
// mid-play, with media unread, leave nothing behind.
TEST_F(ServerTest, TcpAndUdpPlayers) {
  asio::io_context io;
  const asio::ip::udp::endpoint loopback(asio::ip::make_address("127.0.0.1"), 0);
  asio::ip::udp::socket rtp(io, loopback), rtcp(io, loopback);
  Client tcp(server_->Port()), udp(server_->Port());
  ASSERT_EQ(Play(tcp), 200);
  Response setup;
  ASSERT_EQ(Play(udp,
                 "RTP/AVP;unicast;client_port=" + std::to_string(rtp.local_endpoint().port()) +
                     "-" + std::to_string(rtcp.local_endpoint().port()),
                 &setup),
            200);
  RtspTransport transport;
  ASSERT_TRUE(ParseRtspTransportSpec(setup.headers["Transport"], transport));
  ASSERT_TRUE(WaitFor([&rtp] { return rtp.available() > 0; }));
  uint8_t buf[2048];
  EXPECT_GT(rtp.receive(asio::buffer(buf)), 12u);
  const Bytes rr = qz_test::ReceiverReport(transport.ssrc, 128, 5, 90);
  rtcp.send_to(asio::buffer(rr),
               asio::ip::udp::endpoint(loopback.address(),
                                       static_cast<uint16_t>(transport.server_rtcp_port)));
  EXPECT_GT(tcp.Frames(700).size(), 20u);
  EXPECT_EQ(SendBufferOf(tcp), 2 * 64 * 1024);
  ASSERT_TRUE(WaitFor([this] {
    for (const QZRtspSessionStats& each : server_->GetStats().session_stats) {
      if (each.receiver_reports == 1 && each.fraction_lost == 0.5 && !each.tcp) {
        return true;
      }
    }
    return false;
  })) << "the UDP player's receiver report did not reach its session";

  const QZRtspServerStats stats = server_->GetStats();
  ASSERT_EQ(stats.stream_stats.size(), 1u);
  const QZRtspStreamStats& live = stats.stream_stats[0];
  EXPECT_EQ(live.sessions, 2);
  EXPECT_EQ(live.playing, 2);
  EXPECT_EQ(stats.playing, 2);
  ASSERT_EQ(stats.session_stats.size(), 2u);
  for (const QZRtspSessionStats& each : stats.session_stats) {
    EXPECT_GT(each.packets_sent, 20u) << (each.tcp ? "tcp" : "udp");
  }
  EXPECT_GT(live.bytes_sent, live.packets_sent * 12);  // at least an RTP header each
  EXPECT_GT(live.write_delay.samples, 50u);
  EXPECT_GT(live.write_delay.p99_us, 0);
  EXPECT_LT(live.write_delay.p50_us, 1000000);
  EXPECT_GE(live.push_delay.p50_us, 5000);  // the push time is on the server's clock

  tcp.Reset();
  udp.Reset();
  EXPECT_TRUE(WaitFor([this] {
    const QZRtspServerStats after = server_->GetStats();
    return after.sessions == 0 && after.connections == 0;
  }));
}

// What arrives on a connection, in one piece or dripped a byte at a time,
// against the limits of Options() (5 headers, 512 bytes, 400 ms for a
// request): each is answered in order, or waited for (-2), on a connection of
// its own. A refusal (400), and a request not complete within the time limit
// (however it drips), is counted and closes its connection (-1). A viewer
// keeps playing through all of it.
TEST_F(ServerTest, BytesOnAConnection) {
  const auto options = [this](const std::string& headers) {
    return Client::Request("OPTIONS", url_, 1, headers);
  };
  const struct {
    const char* name;
    std::string bytes;
    std::vector<int> answers;
    bool drip = false;
  } cases[] = {
      {"garbage", std::string("\x01\x02\x03 garbage\r\n\r\n", 16), {400}},
      {"pipelined",
       options("") + Client::Request("OPTIONS", url_, 2) +
           Client::Request("GET_PARAMETER", url_, 3),
       {200, 200, 200}},
      {"interleaved_frame_then_request", std::string("$\x09\x00\x02zz", 6) + options(""), {200}},
      {"body_longer_than_sent", options("Content-Length: 100\r\n") + "short", {-2, -1}},
      {"dripped_past_the_time_limit", options(""), {-1}, true},
      {"four_headers_and_cseq", options("A: 1\r\nB: 2\r\nC: 3\r\nD: 4\r\n"), {200}},
      {"five_headers_and_cseq", options("A: 1\r\nB: 2\r\nC: 3\r\nD: 4\r\nE: 5\r\n"), {400}},
      {"request_under_the_byte_limit", options("X: " + std::string(300, 'x') + "\r\n"), {200}},
      {"request_over_the_byte_limit", options("X: " + std::string(600, 'x') + "\r\n"), {400}},
      {"body_over_the_byte_limit", options("Content-Length: 1000\r\n"), {400}},
  };
  Client viewer(server_->Port());
  ASSERT_EQ(Play(viewer), 200);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const unsigned long long refused = server_->GetStats().connections_refused;
    Client client(server_->Port());
    for (size_t i = 0; c.drip && i < c.bytes.size() && client.Read(100).status == -2; ++i) {
      client.Send(c.bytes.substr(i, 1));
    }
    client.Send(c.drip ? "" : c.bytes);
    for (size_t i = 0; i < c.answers.size(); ++i) {
      Response r = client.Read(c.answers[i] == -2 ? 300 : 3000);
      EXPECT_EQ(r.status, c.answers[i]);
      if (r.status == 200) {
        EXPECT_EQ(r.headers["CSeq"], std::to_string(i + 1));
      }
    }
    const bool bad = c.answers.back() == 400 || c.answers.back() == -1;
    if (c.answers.back() == 400) {
      EXPECT_EQ(client.Read(2000).status, -1);
    }
    EXPECT_EQ(server_->GetStats().connections_refused, refused + (bad ? 1 : 0));
    EXPECT_FALSE(viewer.Frames(100).empty()) << "the viewer keeps getting media";
  }
}

// Through the manager: a second pipe under a served name, names that would
// break the URL (or the SDP built from it), and any pipe for a stopped or
// destroyed server are refused, each saying why (the sinker logs it). A
// withdrawn stream lets its players go and is no longer described.
TEST_F(ServerTest, PipesOfferedAndWithdrawnThroughTheManager) {
  QZRtspServerMgr& mgr = *QZRtspServerMgr::Instance();
  const auto refusal = [&mgr](void* handle, const std::string& name) {
    std::shared_ptr<QZRtspPacketPiple> piple = DescribedPipe(name);
    std::string why;
    EXPECT_FALSE(mgr.PostPiple(handle, piple, &why)) << name;
    return why;
  };
  EXPECT_NE(refusal(server_->Handle(), "live").find("already served"), std::string::npos);
  for (const char* bad : {"", "a/b", "a b", "..", "x\r\ns=forged", "caf\xc3\xa9"}) {
    EXPECT_NE(refusal(server_->Handle(), bad).find("URL path segment"), std::string::npos) << bad;
  }
  std::shared_ptr<QZRtspPacketPiple> fine = DescribedPipe("cam-1_front.v2~");
  EXPECT_TRUE(mgr.PostPiple(server_->Handle(), fine));
  EXPECT_EQ(piple_->GetRtspURL(), url_);

  Client c(server_->Port());
  ASSERT_EQ(Play(c), 200);
  StopPublishing();
  mgr.RemovePiple(server_->Handle(), piple_);
  c.Frames(200);
  EXPECT_EQ(c.Read(2000).status, -1);
  Client d(server_->Port());
  d.Send(d.Request("DESCRIBE", url_, 1));
  EXPECT_EQ(d.Read().status, 404);

  server_->Stop();
  EXPECT_NE(refusal(server_->Handle(), "late").find("not running"), std::string::npos);
  void* handle = server_->Handle();
  server_.reset();
  EXPECT_NE(refusal(handle, "late").find("no server"), std::string::npos);
}

// Every URL handed out names an address the server listens on: on every
// interface, each candidate host (IPv6 ones bracketed) takes a connection on
// the server's port, and the pipe was given the first. A host the
// application set, or the one address listened on, is the only candidate;
// a stopped server has none.
TEST_F(ServerTest, CandidateUrlsReachTheServer) {
  EXPECT_EQ(server_->CandidateUrls("live"), std::vector<std::string>{url_});
  QZRtspServerOptions options = Options();
  options.url_host.clear();
  Restart(options);
  const std::string tail = ":" + std::to_string(server_->Port()) + "/live";
  const std::vector<std::string> urls = server_->CandidateUrls("live");
  ASSERT_FALSE(urls.empty());
  EXPECT_EQ(piple_->GetRtspURL(), urls.front());
  EXPECT_EQ(server_->UrlFor("live"), urls.front());
  asio::io_context io;
  for (const std::string& url : urls) {
    ASSERT_GT(url.size(), 7 + tail.size()) << url;
    ASSERT_EQ(url.compare(0, 7, "rtsp://"), 0) << url;
    ASSERT_EQ(url.compare(url.size() - tail.size(), tail.size(), tail), 0) << url;
    std::string host = url.substr(7, url.size() - 7 - tail.size());
    const bool bracketed = host.front() == '[' && host.back() == ']';
    if (bracketed) {
      host = host.substr(1, host.size() - 2);
    }
    asio::error_code ec;
    const asio::ip::address address = asio::ip::make_address(host, ec);
    ASSERT_FALSE(ec) << url;
    EXPECT_EQ(bracketed, address.is_v6()) << url;
    asio::ip::tcp::socket socket(io);
    socket.connect(asio::ip::tcp::endpoint(address, server_->Port()), ec);
    EXPECT_FALSE(ec) << url << ": " << ec.message();
  }

  options.bind_address = "127.0.0.1";
  Restart(options);
  EXPECT_EQ(server_->CandidateUrls("live"), std::vector<std::string>{url_});
  server_->Stop();
  EXPECT_TRUE(server_->CandidateUrls("live").empty());
  EXPECT_EQ(server_->UrlFor("live"), "");
}

// The application may stop the server from its key-frame callback, on the
// network thread: its players are let go and it starts again. Started anew on
// the port it had, while its closed connections linger in the kernel, it
// listens there.
TEST_F(ServerTest, StopFromACallbackAndRestartOnTheSamePort) {
  QZRtspServerOptions options = Options();
  options.gop_cache = false;  // every player asks for a key frame
  std::atomic<bool> stopped{false};
  options.on_key_frame_request = [this, &stopped](const std::string&) {
    server_->Stop();
    stopped = true;
  };
  Restart(options);
  Client c(server_->Port());
  ASSERT_EQ(Play(c), 200);
  ASSERT_TRUE(WaitFor([&stopped] { return stopped.load(); }));
  EXPECT_FALSE(server_->IsRunning());
  EXPECT_EQ(c.Read(2000).status, -1);
  ASSERT_TRUE(server_->Start());
  Client d(server_->Port());
  EXPECT_EQ(AskOptions(d), 200);

  options = Options();
  options.port = server_->Port();
  Restart(options);  // closes d's connection from the server's end first
  Client e(options.port);
  EXPECT_EQ(AskOptions(e), 200);
}

// RTSP tunnelled through HTTP, on a separate HTTP port (tunnels there
// whatever `http_tunnel` says, which keeps them off the RTSP port). A POST
// that comes before its GET waits for it; its base64 requests, each encoded
// on its own and split anywhere, are handled for the GET, which is answered
// HTTP/1.0 and gets every answer and the media. A second GET of the live
// cookie, and a POST naming it from another address, are refused without
// harm to the tunnel. Garbage in the base64 stream is answered 400 on the
// GET, and the pair closes together. Left to the kernel (tcp_send_buffer_ms
// 0), the GET's send buffer is not sized from the stream.
TEST_F(ServerTest, HttpTunnel) {
  QZRtspServerOptions options = Options();
  options.http_tunnel_port = 0;
  options.tcp_send_buffer_ms = 0;
  Restart(options);
  const uint16_t port = server_->HttpTunnelPort();
  ASSERT_NE(port, 0);
  ASSERT_NE(port, server_->Port());
  const auto head = [](const char* method) {
    return std::string(method) +
           " /live HTTP/1.0\r\nx-sessioncookie: tunnel1\r\nContent-Length: 32767\r\n\r\n";
  };
  Client rtsp_port(server_->Port());
  rtsp_port.Send(head("GET"));
  EXPECT_EQ(rtsp_port.Read().status, 400);
  Client post(port), get(port), second(port), stranger(port, "127.0.0.2");
  const std::string setup = Base64(Client::Request(
      "SETUP", url_ + "/trackID=0", 7, "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n"));
  post.Send(head("POST") + setup.substr(0, 5));
  get.Send(head("GET"));
  Response answer = get.Read();
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.headers["Content-Type"], "application/x-rtsp-tunnelled");
  post.Send(setup.substr(5));
  answer = get.Read();
  ASSERT_EQ(answer.status, 200);
  EXPECT_EQ(answer.headers["CSeq"], "7");
  second.Send(head("GET"));
  EXPECT_EQ(second.Read().status, 403);
  stranger.Send(head("POST") + Base64(Client::Request("OPTIONS", url_, 1)));
  EXPECT_EQ(stranger.Read().status, -1);
  post.Send(
      Base64(Client::Request("PLAY", url_, 8, "Session: " + qz_test::SessionId(answer) + "\r\n")));
  EXPECT_EQ(get.Read().status, 200);
  EXPECT_FALSE(get.Frames(300).empty());
  const int send_buffer = SendBufferOf(get);
  EXPECT_GT(send_buffer, 0);
  EXPECT_NE(send_buffer, 2 * 64 * 1024);
  post.Send("!!!!");
  EXPECT_EQ(get.Read().status, 400);
  EXPECT_EQ(get.Read().status, -1);
  EXPECT_EQ(post.Read().status, -1);
  EXPECT_TRUE(WaitFor([this] { return server_->GetStats().connections == 0; }));
}

}  // namespace
}  // namespace qz_rtsp_internal_server
