#include "protocol/rtsp_in_server/tls/qz_tls_client.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <asio/ssl.hpp>

#include "protocol/rtsp_in_server/tls/qz_tls_link.h"

namespace qz_rtsp_internal_server {
namespace {

// The fingerprint as 32 bytes; empty when it is not 64 hex digits (colons
// and blanks between them allowed).
std::string ParseFingerprint(const std::string& text) {
  std::string digits;
  for (char c : text) {
    if (c == ':' || c == ' ') {
      continue;
    }
    digits += c;
  }
  if (digits.size() != 64) {
    return std::string();
  }
  std::string bytes;
  for (size_t i = 0; i < 64; i += 2) {
    unsigned value = 0;
    for (size_t j = i; j < i + 2; ++j) {
      const char c = digits[j];
      const int v = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                           : -1;
      if (v < 0) {
        return std::string();
      }
      value = value * 16 + static_cast<unsigned>(v);
    }
    bytes += static_cast<char>(value);
  }
  return bytes;
}

// Where a context keeps its TlsClientContext for the verify callback. Not
// the app data: Asio's context keeps its own verify callback there and
// deletes whatever it finds in it.
int ContextIndex() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

}  // namespace

std::unique_ptr<TlsClientContext> TlsClientContext::Create(const TlsClientTrust& trust,
                                                           std::string& why) {
  std::string fingerprint;
  if (!trust.fingerprint.empty()) {
    fingerprint = ParseFingerprint(trust.fingerprint);
    if (fingerprint.empty()) {
      why = "the fingerprint is not a SHA-256 digest in hex (64 digits)";
      return nullptr;
    }
  }
  std::unique_ptr<asio::ssl::context> context = MakeTlsContext(TLS_client_method(), why);
  if (!context) {
    return nullptr;
  }
  SSL_CTX* native = context->native_handle();
  if (fingerprint.empty() && trust.verify) {
    asio::error_code ec;
    if (trust.ca_file.empty()) {
      context->set_default_verify_paths(ec);
    } else {
      context->load_verify_file(trust.ca_file, ec);
    }
    if (ec) {
      why = "the CAs (" +
            (trust.ca_file.empty() ? "the system's" : "file '" + trust.ca_file + "'") +
            ") cannot be loaded: " + ec.message();
      ERR_clear_error();
      return nullptr;
    }
  }
  std::unique_ptr<TlsClientContext> made(new TlsClientContext(std::move(context), fingerprint));
  made->verify_ = trust.verify || !fingerprint.empty();
  SSL_CTX_set_ex_data(native, ContextIndex(), made.get());
  SSL_CTX_set_verify(native, made->verify_ ? SSL_VERIFY_PEER : SSL_VERIFY_NONE,
                     made->verify_ ? &TlsClientContext::Verify : nullptr);
  return made;
}

TlsClientContext::TlsClientContext(std::unique_ptr<asio::ssl::context> context,
                                   std::string fingerprint)
    : context_(std::move(context)), fingerprint_(std::move(fingerprint)), verify_(true) {}

TlsClientContext::~TlsClientContext() = default;

// OpenSSL's verdict on each certificate of the chain, root first, ends at
// the relay's own (depth 0). Pinned: the chain does not matter, only that
// the relay's own certificate is the one pinned.
int TlsClientContext::Verify(int preverified, X509_STORE_CTX* store) {
  SSL* ssl =
      static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  const TlsClientContext* self = ssl == nullptr
                                     ? nullptr
                                     : static_cast<const TlsClientContext*>(SSL_CTX_get_ex_data(
                                           SSL_get_SSL_CTX(ssl), ContextIndex()));
  if (self == nullptr || self->fingerprint_.empty()) {
    return preverified;
  }
  if (X509_STORE_CTX_get_error_depth(store) > 0) {
    return 1;
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  X509* cert = X509_STORE_CTX_get_current_cert(store);
  const bool pinned = cert != nullptr && X509_digest(cert, EVP_sha256(), digest, &size) == 1 &&
                      size == self->fingerprint_.size() &&
                      CRYPTO_memcmp(digest, self->fingerprint_.data(), size) == 0;
  if (pinned) {
    X509_STORE_CTX_set_error(store, X509_V_OK);
  }
  return pinned ? 1 : 0;
}

std::unique_ptr<RtspLink> TlsClientContext::Wrap(asio::ip::tcp::socket socket,
                                                 const std::string& host) {
  std::unique_ptr<TlsLink> link;
  try {
    link = std::make_unique<TlsLink>(std::move(socket), *context_, asio::ssl::stream_base::client);
  } catch (const std::exception&) {  // SSL_new() failed, or the allocation
    ERR_clear_error();
    return nullptr;
  }
  SSL* ssl = link->native();
  asio::error_code ec;
  asio::ip::make_address(host, ec);
  const bool address = !ec;
  if (!address) {
    SSL_set_tlsext_host_name(ssl, host.c_str());
  }
  // The chain alone proves nothing about whom it was issued to: the name
  // (or address) must be the relay's. A pinned certificate is the relay's.
  if (verify_ && fingerprint_.empty()) {
    X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
    if (address) {
      X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str());
    } else {
      X509_VERIFY_PARAM_set1_host(param, host.c_str(), 0);
    }
  }
  return link;
}

}  // namespace qz_rtsp_internal_server
