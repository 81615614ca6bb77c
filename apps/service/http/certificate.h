// Makes the certificates that a service on this machine needs.
#pragma once

#include <string>

namespace morvik_service {

/// The validity of a server certificate made here, and of its authority.
inline constexpr int kCertificateDays = 30;
inline constexpr int kAuthorityDays = 365;
/// A certificate that is valid for less than this is replaced.
inline constexpr int kRemainingDays = 1;

/// The file in the certificates' folder that says where the service listens.
inline constexpr const char* kUrlFileName = "url";

struct CertificateFiles {
  std::string authority;    ///< give this to clients
  std::string certificate;  ///< for localhost, 127.0.0.1 and ::1
  std::string key;          ///< readable by its owner only
  /// Why the authority was replaced, for people; "" if it was kept, or if there was none before.
  std::string why_replaced;
};

/// Makes sure that `folder` (created if missing) holds an authority, ca.pem and ca-key.pem, and a server certificate
/// that it signed, cert.pem and key.pem. Existing valid files are kept, so that clients still trust them: the authority
/// as long as it is valid, the server certificate too. An authority can sign only for this machine's own names, so that
/// its key is useless elsewhere; both keys are made readable by their owner only. Throws SetupError
/// when a file cannot be read or written.
CertificateFiles makeCertificates(const std::string& folder);

}  // namespace morvik_service
