// RTSP over TLS (rtsps://): the server's TLS context, made from the
// application's certificate and private key, and the links that carry a
// connection's RTSP and interleaved media inside TLS. TLS 1.2 and 1.3 only,
// with forward-secret AEAD cipher suites; no renegotiation, no compression.
#ifndef PROTOCOL_RTSP_IN_SERVER_TLS_QZ_TLS_SERVER_H_
#define PROTOCOL_RTSP_IN_SERVER_TLS_QZ_TLS_SERVER_H_

#include <asio.hpp>
#include <memory>
#include <string>

#include "protocol/rtsp_in_server/net/qz_rtsp_link.h"

namespace asio {
namespace ssl {
class context;
}  // namespace ssl
}  // namespace asio

namespace qz_rtsp_internal_server {

// The certificate (with its chain, leaf first) and its private key, each as
// PEM text or, when the text is empty, a PEM file.
struct TlsCredentials {
  std::string cert_file;
  std::string key_file;
  std::string cert_pem;
  std::string key_pem;
};

class TlsServerContext {
 public:
  // Null, with the reason in `why`, when the certificate or the key cannot
  // be read or they do not belong together. A key protected by a
  // passphrase is refused (nobody is there to type it).
  static std::unique_ptr<TlsServerContext> Create(const TlsCredentials& credentials,
                                                  std::string& why);
  ~TlsServerContext();

  // A link that runs the server's side of TLS over `socket`: its
  // Handshake() is TLS's. Null (and the socket closed) when OpenSSL cannot
  // make one (out of memory).
  std::unique_ptr<RtspLink> Wrap(asio::ip::tcp::socket socket);

 private:
  explicit TlsServerContext(std::unique_ptr<asio::ssl::context> context);

  std::unique_ptr<asio::ssl::context> context_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_TLS_QZ_TLS_SERVER_H_
