#include "protocol/rtsp_in_server/tls/qz_tls_server.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <asio/ssl.hpp>

#include "protocol/rtsp_in_server/tls/qz_tls_link.h"

namespace qz_rtsp_internal_server {
namespace {

// TLS 1.2 suites with an ephemeral key exchange and an AEAD cipher, for
// either kind of certificate (TLS 1.3's own suites are all such). The
// client picks among them: one without AES instructions (older phones)
// prefers ChaCha20.
constexpr char kTls12Ciphers[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305";
// Sessions kept for resumption by id (TLS 1.2 clients without tickets): a
// client that keeps making new ones cannot grow this.
constexpr long kSessionCacheSize = 256;

// OpenSSL asks for a key's passphrase on the terminal unless told
// otherwise; a server inside an app has none: such a key fails to load.
int NoPassphrase(char*, int, int, void*) {
  return 0;
}

std::string Origin(const std::string& pem, const std::string& file) {
  return pem.empty() ? "file '" + file + "'" : "PEM text";
}

}  // namespace

std::unique_ptr<TlsServerContext> TlsServerContext::Create(const TlsCredentials& credentials,
                                                           std::string& why) {
  if (credentials.cert_pem.empty() && credentials.cert_file.empty()) {
    why = "no certificate given (tls_cert_pem or tls_cert_file)";
    return nullptr;
  }
  if (credentials.key_pem.empty() && credentials.key_file.empty()) {
    why = "no private key given (tls_key_pem or tls_key_file)";
    return nullptr;
  }
  std::unique_ptr<asio::ssl::context> context = MakeTlsContext(TLS_server_method(), why);
  if (!context) {
    return nullptr;
  }
  SSL_CTX* native = context->native_handle();
  SSL_CTX_sess_set_cache_size(native, kSessionCacheSize);
  SSL_CTX_set_default_passwd_cb(native, NoPassphrase);
  if (SSL_CTX_set_cipher_list(native, kTls12Ciphers) != 1) {
    why = "OpenSSL offers none of the TLS 1.2 cipher suites";
    ERR_clear_error();
    return nullptr;
  }

  asio::error_code ec;
  if (!credentials.cert_pem.empty()) {
    context->use_certificate_chain(asio::buffer(credentials.cert_pem), ec);
  } else {
    context->use_certificate_chain_file(credentials.cert_file, ec);
  }
  if (ec) {
    why = "the certificate (" + Origin(credentials.cert_pem, credentials.cert_file) +
          ") cannot be loaded: " + ec.message();
    ERR_clear_error();
    return nullptr;
  }
  if (!credentials.key_pem.empty()) {
    context->use_private_key(asio::buffer(credentials.key_pem), asio::ssl::context::pem, ec);
  } else {
    context->use_private_key_file(credentials.key_file, asio::ssl::context::pem, ec);
  }
  if (ec || SSL_CTX_check_private_key(native) != 1) {
    why = "the private key (" + Origin(credentials.key_pem, credentials.key_file) + ") " +
          (ec ? "cannot be loaded or does not match the certificate: " + ec.message()
              : "does not match the certificate");
    ERR_clear_error();
    return nullptr;
  }
  return std::unique_ptr<TlsServerContext>(new TlsServerContext(std::move(context)));
}

TlsServerContext::TlsServerContext(std::unique_ptr<asio::ssl::context> context)
    : context_(std::move(context)) {}

TlsServerContext::~TlsServerContext() = default;

std::unique_ptr<RtspLink> TlsServerContext::Wrap(asio::ip::tcp::socket socket) {
  try {
    return std::make_unique<TlsLink>(std::move(socket), *context_, asio::ssl::stream_base::server);
  } catch (const std::exception&) {  // SSL_new() failed, or the allocation
    ERR_clear_error();
    return nullptr;
  }
}

}  // namespace qz_rtsp_internal_server
