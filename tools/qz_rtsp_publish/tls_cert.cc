#include "tools/qz_rtsp_publish/tls_cert.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

namespace qz_tools {
namespace {

constexpr long kValidSeconds = 365L * 24 * 3600;

struct OpenSslFree {
  void operator()(X509* p) const { X509_free(p); }
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
  void operator()(BIGNUM* p) const { BN_free(p); }
  void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
  void operator()(FILE* p) const { std::fclose(p); }
};
template <typename T>
using Owned = std::unique_ptr<T, OpenSslFree>;

std::string OpenSslError() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  char text[256];
  ERR_error_string_n(code, text, sizeof(text));
  return code == 0 ? "unknown OpenSSL error" : text;
}

Owned<X509> ReadCertificate(const std::string& path) {
  Owned<FILE> file(std::fopen(path.c_str(), "r"));
  return Owned<X509>(file ? PEM_read_X509(file.get(), nullptr, nullptr, nullptr) : nullptr);
}

Owned<EVP_PKEY> ReadKey(const std::string& path) {
  Owned<FILE> file(std::fopen(path.c_str(), "r"));
  return Owned<EVP_PKEY>(file ? PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr)
                              : nullptr);
}

// Both files there, the key the certificate's, and the certificate not
// expired.
bool Usable(const std::string& cert_file, const std::string& key_file) {
  Owned<X509> cert = ReadCertificate(cert_file);
  Owned<EVP_PKEY> key = ReadKey(key_file);
  const bool usable = cert && key && X509_check_private_key(cert.get(), key.get()) == 1 &&
                      X509_cmp_current_time(X509_get0_notAfter(cert.get())) > 0;
  ERR_clear_error();
  return usable;
}

// Like `mkdir -p`; the folder itself private to its user (it holds a key).
bool MakeFolder(const std::string& path, std::string& error) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    const bool last = slash == std::string::npos;
    if (mkdir(part.c_str(), last ? 0700 : 0755) != 0 && errno != EEXIST) {
      error = "cannot make the folder " + part + ": " + std::strerror(errno);
      return false;
    }
    if (last) {
      return true;
    }
  }
}

// "IP:..." entries for the loopback addresses, `bind` and the interfaces'
// addresses (link-local ones left out: a URL cannot name them).
std::set<std::string> IpNames(const std::string& bind) {
  std::set<std::string> names = {"IP:127.0.0.1", "IP:::1"};
  in6_addr v6{};
  in_addr v4{};
  if (inet_pton(AF_INET, bind.c_str(), &v4) == 1 || inet_pton(AF_INET6, bind.c_str(), &v6) == 1) {
    names.insert("IP:" + bind);
  }
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    return names;
  }
  for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    char text[INET6_ADDRSTRLEN] = {};
    if (entry->ifa_addr == nullptr) {
      continue;
    }
    if (entry->ifa_addr->sa_family == AF_INET) {
      const in_addr a = reinterpret_cast<sockaddr_in*>(entry->ifa_addr)->sin_addr;
      if ((ntohl(a.s_addr) >> 16) != 0xA9FE && inet_ntop(AF_INET, &a, text, sizeof(text))) {
        names.insert(std::string("IP:") + text);
      }
    } else if (entry->ifa_addr->sa_family == AF_INET6) {
      const in6_addr& a = reinterpret_cast<sockaddr_in6*>(entry->ifa_addr)->sin6_addr;
      if (!IN6_IS_ADDR_LINKLOCAL(&a) && inet_ntop(AF_INET6, &a, text, sizeof(text))) {
        names.insert(std::string("IP:") + text);
      }
    }
  }
  freeifaddrs(list);
  return names;
}

bool AddExtension(X509* cert, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, cert, cert, nullptr, nullptr, 0);
  Owned<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  return extension && X509_add_ext(cert, extension.get(), -1) == 1;
}

Owned<X509> MakeCertificate(EVP_PKEY* key, const std::string& bind) {
  char host[256] = "localhost";
  gethostname(host, sizeof(host) - 1);
  Owned<X509> cert(X509_new());
  unsigned char serial[16];
  if (!cert || RAND_bytes(serial, sizeof(serial)) != 1) {
    return nullptr;
  }
  serial[0] &= 0x7F;  // a positive number
  Owned<BIGNUM> number(BN_bin2bn(serial, sizeof(serial), nullptr));
  std::string names = std::string("DNS:") + host;
  if (names != "DNS:localhost") {
    names += ",DNS:localhost";
  }
  for (const std::string& ip : IpNames(bind)) {
    names += "," + ip;
  }
  X509_NAME* subject = X509_get_subject_name(cert.get());
  const bool made =
      number && X509_set_version(cert.get(), 2) == 1 &&
      BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(cert.get())) != nullptr &&
      // An hour back: a viewer whose clock lags a little accepts it at once.
      X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
      X509_gmtime_adj(X509_getm_notAfter(cert.get()), kValidSeconds) != nullptr &&
      X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(host), -1, -1, 0) == 1 &&
      X509_set_issuer_name(cert.get(), subject) == 1 && X509_set_pubkey(cert.get(), key) == 1 &&
      AddExtension(cert.get(), NID_subject_alt_name, names) &&
      AddExtension(cert.get(), NID_basic_constraints, "critical,CA:FALSE") &&
      AddExtension(cert.get(), NID_key_usage, "critical,digitalSignature") &&
      AddExtension(cert.get(), NID_ext_key_usage, "serverAuth") &&
      AddExtension(cert.get(), NID_subject_key_identifier, "hash") &&
      X509_sign(cert.get(), key, EVP_sha256()) > 0;
  return made ? std::move(cert) : nullptr;
}

// Writes through `write` into `path`.tmp (created with `mode`) and renames
// it over `path`: a start that dies half-way leaves no half-written file.
template <typename Write>
bool WriteFile(const std::string& path, mode_t mode, Write write, std::string& error) {
  const std::string temporary = path + ".tmp";
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
  if (fd < 0 || fchmod(fd, mode) != 0) {
    error = "cannot write " + temporary + ": " + std::strerror(errno);
    if (fd >= 0) {
      close(fd);
    }
    return false;
  }
  Owned<FILE> file(fdopen(fd, "w"));
  if (!file) {
    close(fd);
    error = "cannot write " + temporary + ": " + std::strerror(errno);
    return false;
  }
  const bool written = write(file.get()) == 1;
  if (std::fclose(file.release()) != 0 || !written ||
      std::rename(temporary.c_str(), path.c_str()) != 0) {
    error = "cannot write " + path + (written ? std::string(": ") + std::strerror(errno) : "");
    return false;
  }
  return true;
}

}  // namespace

std::string TlsFolder(const std::string& dir) {
  if (!dir.empty()) {
    return dir;
  }
  const char* config = std::getenv("XDG_CONFIG_HOME");
  if (config != nullptr && config[0] == '/') {
    return std::string(config) + "/qz_rtsp_publish";
  }
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr && home[0] != '\0' ? home : ".") + "/.config/qz_rtsp_publish";
}

bool EnsureSelfSignedCertificate(const std::string& folder,
                                 const std::string& bind,
                                 std::string& cert_file,
                                 std::string& key_file,
                                 std::string& error) {
  cert_file = folder + "/cert.pem";
  key_file = folder + "/key.pem";
  if (Usable(cert_file, key_file)) {
    return true;
  }
  if (!MakeFolder(folder, error)) {
    return false;
  }
  Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
  Owned<X509> cert = key ? MakeCertificate(key.get(), bind) : nullptr;
  if (!cert) {
    error = "cannot make a certificate: " + OpenSslError();
    return false;
  }
  return WriteFile(
             key_file, 0600,
             [&key](FILE* f) {
               return PEM_write_PrivateKey(f, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
             },
             error) &&
         WriteFile(
             cert_file, 0644, [&cert](FILE* f) { return PEM_write_X509(f, cert.get()); }, error);
}

std::string CertificateFingerprint(const std::string& cert_file) {
  Owned<X509> cert = ReadCertificate(cert_file);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (!cert || X509_digest(cert.get(), EVP_sha256(), digest, &size) != 1) {
    ERR_clear_error();
    return std::string();
  }
  std::string text;
  for (unsigned int i = 0; i < size; ++i) {
    char hex[4];
    std::snprintf(hex, sizeof(hex), i == 0 ? "%02X" : ":%02X", digest[i]);
    text += hex;
  }
  return text;
}

}  // namespace qz_tools
