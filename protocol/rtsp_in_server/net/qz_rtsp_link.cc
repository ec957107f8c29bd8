#include "protocol/rtsp_in_server/net/qz_rtsp_link.h"

namespace qz_rtsp_internal_server {
namespace {

class TcpLink : public RtspLink {
 public:
  explicit TcpLink(asio::ip::tcp::socket socket) : socket_(std::move(socket)) {
    asio::error_code ec;
    // WriteNow never blocks the network thread.
    socket_.non_blocking(true, ec);
  }

  asio::ip::tcp::socket& socket() override { return socket_; }

  void Handshake(std::function<void(const asio::error_code& ec)> done) override {
    done(asio::error_code());
  }

  void ReadSome(asio::mutable_buffer into, Done done) override {
    socket_.async_read_some(into, std::move(done));
  }

  size_t WriteNow(const std::vector<asio::const_buffer>& buffers, asio::error_code& ec) override {
    // One sendmsg() of every buffer; a full socket takes what fits.
    const size_t n = socket_.write_some(buffers, ec);
    if (ec == asio::error::would_block || ec == asio::error::try_again) {
      ec.clear();
      return 0;
    }
    return n;
  }

  void Write(const std::vector<asio::const_buffer>& buffers, Done done) override {
    asio::async_write(socket_, buffers, std::move(done));
  }

  void Close() override {
    asio::error_code ec;
    socket_.shutdown(asio::ip::tcp::socket::shutdown_both, ec);
    socket_.close(ec);
  }

 private:
  asio::ip::tcp::socket socket_;
};

}  // namespace

std::unique_ptr<RtspLink> MakeTcpLink(asio::ip::tcp::socket socket) {
  return std::make_unique<TcpLink>(std::move(socket));
}

}  // namespace qz_rtsp_internal_server
