#include "tests/host/net/test_authority.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <fstream>
#include <stdexcept>

namespace morvik::test {

namespace {

void require(bool done, const char* what) {
  if (!done)
    throw std::runtime_error(what);
}

void addExtension(X509* certificate, X509* issuer, int which, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, which, value.c_str());
  require(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, "extension");
  X509_EXTENSION_free(extension);
}

CertificatePtr blankCertificate(EVP_PKEY* key, const char* name, long valid_seconds) {
  static std::atomic<long> serial{1};
  CertificatePtr certificate(X509_new());
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial++);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kSecondsPerDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), valid_seconds);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
  return certificate;
}

}  // namespace

TestAuthority::TestAuthority()
    : key_(EVP_EC_gen("P-256")),
      certificate_(blankCertificate(key_.get(), "Morvik test authority", kSecondsPerDay)),
      file_(folder_ / "authority.pem") {
  X509_set_issuer_name(certificate_.get(), X509_get_subject_name(certificate_.get()));
  addExtension(certificate_.get(), certificate_.get(), NID_basic_constraints, "critical,CA:TRUE");
  addExtension(certificate_.get(), certificate_.get(), NID_key_usage, "critical,keyCertSign");
  addExtension(certificate_.get(), certificate_.get(), NID_subject_key_identifier, "hash");
  require(X509_sign(certificate_.get(), key_.get(), EVP_sha256()) > 0, "signature");
  std::ofstream file(file_);
  require(bool(file << pemOf(*certificate_)), "authority file");
}

Identity TestAuthority::issue(const std::string& names, long valid_seconds) const {
  Identity identity;
  identity.key.reset(EVP_EC_gen("P-256"));
  identity.certificate = blankCertificate(identity.key.get(), "Morvik test server", valid_seconds);
  X509_set_issuer_name(identity.certificate.get(), X509_get_subject_name(certificate_.get()));
  addExtension(identity.certificate.get(), certificate_.get(), NID_subject_alt_name, names);
  addExtension(identity.certificate.get(), certificate_.get(), NID_authority_key_identifier, "keyid");
  require(X509_sign(identity.certificate.get(), key_.get(), EVP_sha256()) > 0, "signature");
  return identity;
}

Identity selfSigned(const std::string& names) {
  Identity identity;
  identity.key.reset(EVP_EC_gen("P-256"));
  X509* certificate = (identity.certificate = blankCertificate(identity.key.get(), "Nobody", kSecondsPerDay)).get();
  X509_set_issuer_name(certificate, X509_get_subject_name(certificate));
  addExtension(certificate, certificate, NID_subject_alt_name, names);
  require(X509_sign(certificate, identity.key.get(), EVP_sha256()) > 0, "signature");
  return identity;
}

std::string pemOf(const X509& certificate) {
  const std::unique_ptr<BIO, decltype(&BIO_free_all)> memory(BIO_new(BIO_s_mem()), BIO_free_all);
  require(PEM_write_bio_X509(memory.get(), &certificate) == 1, "PEM text");
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &text);
  return {text, static_cast<size_t>(size)};
}

}  // namespace morvik::test
