// RTSP over TLS on the server's TLS port, over loopback: a viewer that plays
// inside TLS (and is never sent media over UDP, in clear), what arrives at
// the TLS port besides (stalled and broken handshakes, plain RTSP, an old
// TLS version) while it plays, and the certificate and key an application
// gives Start(). What the server answers inside TLS (Digest included) is the
// same as over TCP and tested on fakes in qz_rtsp_core_test.cc. The
// certificates are made at run time: no private key is kept in the
// repository.
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/qz_rtsp_server.h"
#include "protocol/rtsp_in_server/tls/qz_tls_client.h"
#include "tests/fakes/loopback_server.h"
#include "tests/fakes/rtsp_test_client.h"
#include "tests/fakes/test_support.h"

namespace qz_rtsp_internal_server {
namespace {

using qz_test::Client;

struct OpenSslFree {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
  void operator()(X509* p) const { X509_free(p); }
  void operator()(BIO* p) const { BIO_free(p); }
  void operator()(SSL_CTX* p) const { SSL_CTX_free(p); }
};
template <typename T>
using Owned = std::unique_ptr<T, OpenSslFree>;

struct Credentials {
  std::string cert_pem;
  std::string key_pem;
};

// What `write` put into a memory BIO.
std::string Pem(const std::function<int(BIO*)>& write) {
  Owned<BIO> bio(BIO_new(BIO_s_mem()));
  EXPECT_EQ(write(bio.get()), 1);
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);  // sets data: call it first
  return std::string(data, static_cast<size_t>(size));
}

// A P-256 key and a certificate for it, self-signed, valid for a day.
Credentials MakeCredentials() {
  Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
  Owned<X509> cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -60);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 86400);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(cert.get(), name);
  X509_set_pubkey(cert.get(), key.get());
  // Clients check an address against the certificate's subjectAltName.
  X509V3_CTX v3;
  X509V3_set_ctx(&v3, cert.get(), cert.get(), nullptr, nullptr, 0);
  X509_EXTENSION* san = X509V3_EXT_conf_nid(nullptr, &v3, NID_subject_alt_name, "IP:127.0.0.1");
  X509_add_ext(cert.get(), san, -1);
  X509_EXTENSION_free(san);
  EXPECT_GT(X509_sign(cert.get(), key.get(), EVP_sha256()), 0);
  return {Pem([&cert](BIO* bio) { return PEM_write_bio_X509(bio, cert.get()); }),
          Pem([&key](BIO* bio) {
            return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
          })};
}

const Credentials& ServerCredentials() {
  static const Credentials credentials = MakeCredentials();
  return credentials;
}

Owned<X509> ServerCertificate() {
  const std::string& pem = ServerCredentials().cert_pem;
  Owned<BIO> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return Owned<X509>(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

// The server's certificate and key in files of a folder of their own,
// removed with it.
struct CredentialFiles {
  CredentialFiles() {
    char made[] = "/tmp/qz_tls_test_XXXXXX";
    EXPECT_NE(mkdtemp(made), nullptr);
    folder = made;
    std::ofstream(cert()) << ServerCredentials().cert_pem;
    std::ofstream(key()) << ServerCredentials().key_pem;
  }
  ~CredentialFiles() {
    unlink(cert().c_str());
    unlink(key().c_str());
    rmdir(folder.c_str());
  }
  std::string cert() const { return folder + "/cert.pem"; }
  std::string key() const { return folder + "/key.pem"; }
  std::string folder;
};

// A client context up to `max_version` that trusts only the server's
// certificate (a handshake with any other fails); or, with `max_version`
// below TLS 1.2, one that offers TLS 1.0 and 1.1 only (OpenSSL 3 needs
// security level 0 to offer them at all).
Owned<SSL_CTX> ClientContext(int max_version = TLS1_3_VERSION) {
  Owned<SSL_CTX> context(SSL_CTX_new(TLS_client_method()));
  SSL_CTX_set_max_proto_version(context.get(), max_version);
  if (max_version < TLS1_2_VERSION) {
    SSL_CTX_set_security_level(context.get(), 0);
    SSL_CTX_set_cipher_list(context.get(), "DEFAULT:@SECLEVEL=0");
    SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION);
    return context;
  }
  X509_STORE_add_cert(SSL_CTX_get_cert_store(context.get()), ServerCertificate().get());
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  return context;
}

class TlsServerTest : public LoopbackServerTest {
 protected:
  // The limits of Options() (a handshake, like a request, must end within
  // 400 ms) and a TLS port; requests name the rtsps:// URL.
  void SetUp() override {
    QZRtspServerOptions options = Options();
    options.tls_port = 0;
    options.tls_cert_pem = ServerCredentials().cert_pem;
    options.tls_key_pem = ServerCredentials().key_pem;
    Restart(options);
    url_ = server_->TlsUrlFor("live");
  }

  Owned<SSL_CTX> trusting_ = ClientContext();
};

// A viewer plays inside TLS, under the rtsps:// URL: offered UDP first, it is
// given TCP (its media never crosses the network in clear). What arrives at
// the TLS port while it plays: each connection on its own is served (TLS 1.2
// is enough), or closed and counted as refused: at once when its handshake
// fails, within the request limit when it stalls. The viewer keeps getting
// media throughout, and the RTSP port stays plain.
TEST_F(TlsServerTest, HandshakesThatFailOrStallAreClosed) {
  Owned<SSL_CTX> tls12 = ClientContext(TLS1_2_VERSION), tls11 = ClientContext(TLS1_1_VERSION);
  const struct {
    const char* name;
    SSL_CTX* tls;       // null: a plain TCP connection
    std::string bytes;  // sent after connecting (plain ones)
    bool served;
  } cases[] = {
      {"tls_1_2", tls12.get(), "", true},
      {"stalled_handshake", nullptr, "", false},
      {"half_a_client_hello", nullptr, std::string("\x16\x03\x01\x02\x00\x01", 6), false},
      {"garbage", nullptr, "\x01\x02\x03 garbage\r\n\r\n", false},
      {"plain_rtsp", nullptr, Client::Request("OPTIONS", url_, 1), false},
      {"tls_1_1_only", tls11.get(), "", false},
  };
  EXPECT_EQ(url_, "rtsps://127.0.0.1:" + std::to_string(server_->TlsPort()) + "/live");
  Client viewer(server_->TlsPort(), "", trusting_.get());
  ASSERT_EQ(
      Play(viewer, "RTP/AVP;unicast;client_port=5000-5001,RTP/AVP/TCP;unicast;interleaved=0-1"),
      200);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const unsigned long long refused = server_->GetStats().connections_refused;
    const auto start = std::chrono::steady_clock::now();
    Client client(server_->TlsPort(), "", c.tls);
    client.Send(c.bytes);
    if (c.served) {
      EXPECT_TRUE(client.connected());
      EXPECT_EQ(AskOptions(client), 200);
    } else {
      EXPECT_EQ(client.Read(3000).status, -1);
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
    }
    // A failed handshake's alert may reach the client before the server
    // counts it.
    EXPECT_TRUE(qz_test::WaitFor([this, refused, &c] {
      return server_->GetStats().connections_refused == refused + (c.served ? 0 : 1);
    }));
    EXPECT_FALSE(viewer.Frames(100).empty()) << "the viewer keeps getting media";
  }
  Client plain(server_->Port());
  EXPECT_EQ(AskOptions(plain), 200);
}

// The certificate and key as PEM text or files: Start() succeeds and serves
// them (the client trusts only that certificate), or fails, leaving nothing
// running, and logs why.
TEST(TlsServerStartTest, NeedsACertificateAndItsKey) {
  const CredentialFiles files;
  const Credentials& good = ServerCredentials();
  const std::string other_key = MakeCredentials().key_pem;
  const struct {
    const char* name;
    std::string cert_pem, key_pem, cert_file, key_file;
    const char* why;  // null: it starts
  } cases[] = {
      {"pem", good.cert_pem, good.key_pem, "", "", nullptr},
      {"files", "", "", files.cert(), files.key(), nullptr},
      {"no_key", good.cert_pem, "", "", "", "no private key given"},
      {"garbage_certificate", "not a certificate", good.key_pem, "", "", "the certificate (PEM"},
      {"missing_file", "", good.key_pem, files.cert() + ".missing", "", "the certificate (file '"},
      {"another_key", good.cert_pem, other_key, "", "", "the private key (PEM text)"},
  };
  Owned<SSL_CTX> trusting = ClientContext();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    QZRtspServerOptions options;
    options.port = 0;
    options.tls_port = 0;
    options.tls_cert_pem = c.cert_pem;
    options.tls_key_pem = c.key_pem;
    options.tls_cert_file = c.cert_file;
    options.tls_key_file = c.key_file;
    qz_test::LogCapture log;
    QZRtspServer server(options);
    EXPECT_EQ(server.Start(), c.why == nullptr);
    const std::vector<std::string> errors =
        log.Matching("VartoLogIOS [E] QZRtspServer::Start cannot serve TLS: ");
    if (c.why == nullptr) {
      EXPECT_TRUE(errors.empty());
      Client client(server.TlsPort(), "", trusting.get());
      EXPECT_TRUE(client.connected());
    } else {
      EXPECT_FALSE(server.IsRunning());
      EXPECT_EQ(server.TlsPort(), 0);
      ASSERT_EQ(errors.size(), 1u);
      EXPECT_NE(errors[0].find(c.why), std::string::npos) << errors[0];
    }
  }
}

// A pusher's side of TLS against the server's TLS port: the relay's
// certificate is accepted when pinned by its fingerprint, or when a trusted
// CA signed it for the host connected to; otherwise the handshake fails.
TEST_F(TlsServerTest, ClientTrustsOnlyWhatItIsTold) {
  const CredentialFiles files;  // the certificate is its own CA
  unsigned char digest[32];
  unsigned int size = 0;
  X509_digest(ServerCertificate().get(), EVP_sha256(), digest, &size);
  std::string pin;
  for (unsigned i = 0; i < size; ++i) {
    char hex[4];
    std::snprintf(hex, sizeof(hex), i == 0 ? "%02X" : ":%02X", digest[i]);
    pin += hex;
  }
  std::string wrong_pin = pin;
  wrong_pin[0] = wrong_pin[0] == 'A' ? 'B' : 'A';
  const struct {
    const char* name;
    std::string fingerprint;
    std::string ca_file;
    bool verify;
    const char* host;
    bool trusted;
    const char* why;  // what Create() says when it refuses the trust (null: it takes it)
  } cases[] = {
      {"pinned", pin, "", true, "127.0.0.1", true, nullptr},
      {"pinned_other", wrong_pin, "", true, "127.0.0.1", false, nullptr},
      {"ca_file", "", files.cert(), true, "127.0.0.1", true, nullptr},
      {"ca_file_other_name", "", files.cert(), true, "relay.example", false, nullptr},
      {"system_cas", "", "", true, "127.0.0.1", false, nullptr},
      {"no_check", "", "", false, "relay.example", true, nullptr},
      {"short_fingerprint", "12:34", "", true, "127.0.0.1", false, "SHA-256"},
      {"missing_ca_file", "", "/nonexistent/ca.pem", true, "127.0.0.1", false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string why;
    std::unique_ptr<TlsClientContext> context =
        TlsClientContext::Create({c.fingerprint, c.ca_file, c.verify}, why);
    if (c.why != nullptr) {
      EXPECT_FALSE(context);
      EXPECT_NE(why.find(c.why), std::string::npos) << why;
      continue;
    }
    ASSERT_TRUE(context) << why;
    asio::io_context io;
    asio::ip::tcp::socket socket(io);
    socket.connect({asio::ip::make_address("127.0.0.1"), server_->TlsPort()});
    std::unique_ptr<RtspLink> link = context->Wrap(std::move(socket), c.host);
    ASSERT_TRUE(link);
    bool done = false;
    asio::error_code result;
    link->Handshake([&](const asio::error_code& ec) {
      done = true;
      result = ec;
    });
    io.run_for(std::chrono::seconds(5));
    ASSERT_TRUE(done) << "the handshake did not end within 5 s";
    EXPECT_EQ(!result, c.trusted) << result.message();
  }
}

}  // namespace
}  // namespace qz_rtsp_internal_server
