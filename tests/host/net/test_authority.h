// Certificates made while the tests run.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

#include "tests/support/scratch_folder.h"

namespace morvik::test {

struct OpensslRelease {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, OpensslRelease>;
using CertificatePtr = std::unique_ptr<X509, OpensslRelease>;

/// What a server presents.
struct Identity {
  KeyPtr key;
  CertificatePtr certificate;
};

inline constexpr long kSecondsPerDay = 24L * 60 * 60;

/// An authority for tests. Its file is removed with it.
class TestAuthority {
 public:
  TestAuthority();
  TestAuthority(const TestAuthority&) = delete;
  TestAuthority& operator=(const TestAuthority&) = delete;

  /// PEM file of the authority's own certificate.
  const std::string& file() const { return file_; }
  /// `names` in OpenSSL's form, "DNS:localhost,IP:127.0.0.1"; valid from a day ago until that many seconds from now.
  Identity issue(const std::string& names, long valid_seconds = kSecondsPerDay) const;

 private:
  KeyPtr key_;
  CertificatePtr certificate_;
  const ScratchFolder folder_;
  std::string file_;
};

/// A certificate vouched for by nobody but its holder.
Identity selfSigned(const std::string& names);
/// The certificate as PEM text.
std::string pemOf(const X509& certificate);

/// The names of this machine.
inline constexpr const char* kLoopbackNames = "DNS:localhost,IP:127.0.0.1,IP:::1";

}  // namespace morvik::test
