// Makes the certificates that a service on this machine needs.
#pragma once

#include <string>

namespace morvik_service {

/// How long a server certificate is good that is made here, and its authority.
inline constexpr int kCertificateDays = 30;
inline constexpr int kAuthorityDays = 365;
/// What is not good for so long any more is made anew.
inline constexpr int kRemainingDays = 1;

/// In the folder of the certificates, the service says here where it listens.
inline constexpr const char* kUrlFileName = "url";

struct CertificateFiles {
  std::string authority;    ///< give this to clients
  std::string certificate;  ///< for localhost, 127.0.0.1 and ::1
  std::string key;          ///< readable by its owner alone
  /// Why there is another authority than before, for people; "" when the one that was there is kept, or none was.
  std::string why_replaced;
};

/// Sees that `folder` (made when missing) holds an authority, ca.pem and ca-key.pem, and a server certificate that it
/// signed, cert.pem and key.pem. What is there and still good is kept, so that clients go on trusting: the authority as
/// long as it is valid, the server certificate too. An authority can sign for this machine's own names alone, so that
/// its key is of no use elsewhere; both keys are made readable by their owner alone. Throws SetupError when a file
/// cannot be read or written.
CertificateFiles makeCertificates(const std::string& folder);

}  // namespace morvik_service
