// The client's side of TLS, for a pusher that sends its stream to an
// rtsps:// relay: TLS 1.2 and 1.3 only, the relay's certificate checked
// against the system's CAs (or the application's) and the relay's host
// name, or pinned by its SHA-256 fingerprint (a relay with a self-signed
// certificate).
#ifndef PROTOCOL_RTSP_IN_SERVER_TLS_QZ_TLS_CLIENT_H_
#define PROTOCOL_RTSP_IN_SERVER_TLS_QZ_TLS_CLIENT_H_

#include <asio.hpp>
#include <memory>
#include <string>

#include "protocol/rtsp_in_server/net/qz_rtsp_link.h"

struct x509_store_ctx_st;  // OpenSSL's X509_STORE_CTX

namespace asio {
namespace ssl {
class context;
}  // namespace ssl
}  // namespace asio

namespace qz_rtsp_internal_server {

// How the relay's certificate is trusted.
struct TlsClientTrust {
  // The SHA-256 fingerprint of the relay's certificate, as hex (colons and
  // case do not matter): that certificate is accepted and no other,
  // whatever CA signed it. Empty: the chain is checked.
  std::string fingerprint;
  // PEM file of the CAs to trust (or the relay's self-signed certificate);
  // empty: the system's default CAs.
  std::string ca_file;
  // False: any certificate is accepted. Encrypted, but anyone on the path
  // can pose as the relay: for tests only.
  bool verify = true;
};

class TlsClientContext {
 public:
  // Null, with the reason in `why`, when the CA file cannot be read or the
  // fingerprint is not 32 bytes of hex.
  static std::unique_ptr<TlsClientContext> Create(const TlsClientTrust& trust, std::string& why);
  ~TlsClientContext();

  // A link that runs the client's side of TLS over `socket` to `host` (a
  // name, which is also sent as SNI, or an address): its Handshake() fails
  // unless the certificate is trusted as above. Null when OpenSSL cannot
  // make one.
  std::unique_ptr<RtspLink> Wrap(asio::ip::tcp::socket socket, const std::string& host);

 private:
  TlsClientContext(std::unique_ptr<asio::ssl::context> context, std::string fingerprint);
  static int Verify(int preverified, ::x509_store_ctx_st* store);

  std::unique_ptr<asio::ssl::context> context_;
  std::string fingerprint_;  // 32 bytes, binary; empty: none pinned
  bool verify_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_TLS_QZ_TLS_CLIENT_H_
