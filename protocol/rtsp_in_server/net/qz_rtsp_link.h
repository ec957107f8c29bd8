// The byte stream one client connection reads and writes: a plain TCP
// socket (MakeTcpLink, here) or TLS over one (tls/qz_tls_server.h). The
// connection's logic is the same over either; what differs is how bytes get
// to the kernel:
//   - over TCP a write is handed to the kernel at once, scatter-gather
//     straight from the stream's shared packets, without waiting (WriteNow),
//     and only what the socket buffer cannot take waits (Write);
//   - over TLS every write waits (Write): the records are encrypted into the
//     link's own buffer and sent as the socket drains.
// Network thread only.
#ifndef PROTOCOL_RTSP_IN_SERVER_NET_QZ_RTSP_LINK_H_
#define PROTOCOL_RTSP_IN_SERVER_NET_QZ_RTSP_LINK_H_

#include <asio.hpp>
#include <functional>
#include <memory>
#include <vector>

namespace qz_rtsp_internal_server {

class RtspLink {
 public:
  using Done = std::function<void(const asio::error_code& ec, size_t bytes)>;

  virtual ~RtspLink() = default;

  // The TCP socket beneath: its addresses and options.
  virtual asio::ip::tcp::socket& socket() = 0;
  // Makes the link ready to carry RTSP, then calls `done` (an error: it
  // cannot be). Over TCP at once, before returning; over TLS once the
  // handshake is over.
  virtual void Handshake(std::function<void(const asio::error_code& ec)> done) = 0;
  // Reads what has arrived into `into`, waiting for at least one byte.
  virtual void ReadSome(asio::mutable_buffer into, Done done) = 0;
  // Hands as much of `buffers` as the socket takes now to the kernel,
  // without waiting, and returns how many bytes; 0 without an error when it
  // takes nothing now (a full socket, or a link that writes only through
  // Write).
  virtual size_t WriteNow(const std::vector<asio::const_buffer>& buffers, asio::error_code& ec) = 0;
  // Writes all of `buffers`, whose bytes stay valid until `done`.
  virtual void Write(const std::vector<asio::const_buffer>& buffers, Done done) = 0;
  // Closes at once; what waits ends with an error.
  virtual void Close() = 0;
};

// RTSP over a plain TCP socket, which it makes non-blocking.
std::unique_ptr<RtspLink> MakeTcpLink(asio::ip::tcp::socket socket);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_NET_QZ_RTSP_LINK_H_
