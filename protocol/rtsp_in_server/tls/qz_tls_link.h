// A connection's RTSP inside TLS, either side: the server's links and a
// pusher's link to its relay. Internal to tls/.
#ifndef PROTOCOL_RTSP_IN_SERVER_TLS_QZ_TLS_LINK_H_
#define PROTOCOL_RTSP_IN_SERVER_TLS_QZ_TLS_LINK_H_

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <asio.hpp>
#include <asio/ssl.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/net/qz_rtsp_link.h"

namespace qz_rtsp_internal_server {

// A context for either side with what both keep to: TLS 1.2 and up, no
// compression, no renegotiation. Null, with the reason in `why`, when
// OpenSSL cannot make one.
inline std::unique_ptr<asio::ssl::context> MakeTlsContext(const SSL_METHOD* method,
                                                          std::string& why) {
  SSL_CTX* native = SSL_CTX_new(method);
  if (native == nullptr) {
    why = "OpenSSL cannot make a TLS context";
    ERR_clear_error();
    return nullptr;
  }
  auto context = std::make_unique<asio::ssl::context>(native);  // owns `native`
  SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
  long options = SSL_OP_NO_COMPRESSION;
#ifdef SSL_OP_NO_RENEGOTIATION
  options |= SSL_OP_NO_RENEGOTIATION;
#endif
  SSL_CTX_set_options(native, options);
  return context;
}

class TlsLink : public RtspLink {
 public:
  TlsLink(asio::ip::tcp::socket socket,
          asio::ssl::context& context,
          asio::ssl::stream_base::handshake_type side)
      : stream_(std::move(socket), context), side_(side) {}

  asio::ip::tcp::socket& socket() override { return stream_.next_layer(); }

  void Handshake(std::function<void(const asio::error_code& ec)> done) override {
    stream_.async_handshake(side_, std::move(done));
  }

  void ReadSome(asio::mutable_buffer into, Done done) override {
    stream_.async_read_some(into, std::move(done));
  }

  // Encrypting needs the link's own buffer and may take several socket
  // writes per call: every write goes through Write().
  size_t WriteNow(const std::vector<asio::const_buffer>&, asio::error_code& ec) override {
    ec.clear();
    return 0;
  }

  // Asio hands OpenSSL up to 8 KiB at a time (gathered from the shared
  // packets into one plaintext buffer), one TLS record each, and sends each
  // record as it is made.
  void Write(const std::vector<asio::const_buffer>& buffers, Done done) override {
    asio::async_write(stream_, buffers, std::move(done));
  }

  // No close_notify: the connection is over, whoever ends it, and a client
  // that stopped reading would never take it.
  void Close() override {
    asio::error_code ec;
    stream_.next_layer().shutdown(asio::ip::tcp::socket::shutdown_both, ec);
    stream_.next_layer().close(ec);
  }

  SSL* native() { return stream_.native_handle(); }

 private:
  asio::ssl::stream<asio::ip::tcp::socket> stream_;
  asio::ssl::stream_base::handshake_type side_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_TLS_QZ_TLS_LINK_H_
