// The certificate qz_rtsp_publish serves RTSP over TLS with when it is given
// none: self-signed, made on the first start, kept in a folder and used
// again on later starts, so that a viewer that pinned its fingerprint keeps
// trusting it.
#ifndef TOOLS_QZ_RTSP_PUBLISH_TLS_CERT_H_
#define TOOLS_QZ_RTSP_PUBLISH_TLS_CERT_H_

#include <string>

namespace qz_tools {

// The folder the certificate is kept in: `dir` when given, else
// $XDG_CONFIG_HOME/qz_rtsp_publish, else ~/.config/qz_rtsp_publish.
std::string TlsFolder(const std::string& dir);

// Paths of "cert.pem" and "key.pem" in `folder` (made, mode 0700, when
// missing). Made anew when either is missing, unreadable or expired: an
// EC P-256 key and a certificate valid for a year, named after this host
// (CN and DNS names: the host name and localhost; IP addresses: loopback,
// `bind` when it is an address, and the device's interfaces of the
// moment). False with the reason in `error`.
bool EnsureSelfSignedCertificate(const std::string& folder,
                                 const std::string& bind,
                                 std::string& cert_file,
                                 std::string& key_file,
                                 std::string& error);

// "AA:BB:...": the SHA-256 of the first certificate in `cert_file`, as
// browsers and `openssl x509 -fingerprint -sha256` show it; empty when the
// file holds none.
std::string CertificateFingerprint(const std::string& cert_file);

}  // namespace qz_tools

#endif  // TOOLS_QZ_RTSP_PUBLISH_TLS_CERT_H_
