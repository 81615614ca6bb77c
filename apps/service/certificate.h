// Makes the certificates that a service on this machine needs.
#pragma once

#include <string>

namespace morvik_service {

/// How long made certificates are good.
inline constexpr int kCertificateDays = 30;

/// In the folder of the certificates, the service says here where it listens.
inline constexpr const char* kUrlFileName = "url";

struct CertificateFiles {
  std::string authority;    ///< give this to clients
  std::string certificate;  ///< for localhost, 127.0.0.1 and ::1
  std::string key;          ///< readable by its owner alone
};

/// Makes a certificate authority and, signed by it, a server certificate, and writes ca.pem, cert.pem and key.pem into
/// `folder` (made when missing; files of these names are replaced). The authority's own key is never written, so nobody
/// can sign anything else with it. Throws SetupError when a file cannot be written.
CertificateFiles makeCertificates(const std::string& folder);

}  // namespace morvik_service
