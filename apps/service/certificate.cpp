#include "apps/service/certificate.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>

#include "apps/service/files.h"
#include "apps/service/refusal.h"

namespace morvik_service {
namespace {

struct FreeOpenSsl {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using Key = std::unique_ptr<EVP_PKEY, FreeOpenSsl>;
using Certificate = std::unique_ptr<X509, FreeOpenSsl>;

constexpr long kSecondsPerDay = 86400;
constexpr long kX509Version3 = 2;

void mustSucceed(bool succeeded) {
  if (!succeeded)
    throw SetupError("OpenSSL cannot make the certificates");
}

Key makeKey() {
  // What the library's EVP_EC_gen macro does, without its cast.
  Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  mustSucceed(key != nullptr);
  return key;
}

void setRandomSerial(X509* certificate) {
  std::uint64_t number = 0;
  std::array<unsigned char, sizeof number> bytes;
  mustSucceed(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1);
  std::memcpy(&number, bytes.data(), sizeof number);
  mustSucceed(ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), number >> 1) == 1);
}

void setSubject(X509* certificate, const std::string& name) {
  mustSucceed(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                                         reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0) == 1);
}

void addExtension(X509* certificate, X509* issuer, int identifier, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, FreeOpenSsl> extension(
      X509V3_EXT_conf_nid(nullptr, &context, identifier, value));
  mustSucceed(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1);
}

// What authority and server certificate have in common. It holds from yesterday on: clocks differ.
Certificate makeUnsigned(const std::string& name, EVP_PKEY* key) {
  Certificate certificate(X509_new());
  mustSucceed(certificate != nullptr && X509_set_version(certificate.get(), kX509Version3) == 1);
  setRandomSerial(certificate.get());
  mustSucceed(X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kSecondsPerDay) != nullptr);
  mustSucceed(X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kCertificateDays * kSecondsPerDay) != nullptr);
  mustSucceed(X509_set_pubkey(certificate.get(), key) == 1);
  setSubject(certificate.get(), name);
  return certificate;
}

void sign(X509* certificate, X509* issuer, EVP_PKEY* issuer_key) {
  mustSucceed(X509_set_issuer_name(certificate, X509_get_subject_name(issuer)) == 1);
  addExtension(certificate, issuer, NID_subject_key_identifier, "hash");
  addExtension(certificate, issuer, NID_authority_key_identifier, "keyid");
  mustSucceed(X509_sign(certificate, issuer_key, EVP_sha256()) != 0);
}

Certificate makeAuthority(EVP_PKEY* key) {
  Certificate certificate = makeUnsigned("Local tracking service authority", key);
  addExtension(certificate.get(), certificate.get(), NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
  addExtension(certificate.get(), certificate.get(), NID_key_usage, "critical,keyCertSign");
  sign(certificate.get(), certificate.get(), key);
  return certificate;
}

Certificate makeServer(EVP_PKEY* key, X509* authority, EVP_PKEY* authority_key) {
  Certificate certificate = makeUnsigned("localhost", key);
  addExtension(certificate.get(), authority, NID_basic_constraints, "critical,CA:FALSE");
  addExtension(certificate.get(), authority, NID_key_usage, "critical,digitalSignature");
  addExtension(certificate.get(), authority, NID_ext_key_usage, "serverAuth");
  addExtension(certificate.get(), authority, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1");
  sign(certificate.get(), authority, authority_key);
  return certificate;
}

template <typename Write>
std::string pemText(Write write) {
  const std::unique_ptr<BIO, FreeOpenSsl> memory(BIO_new(BIO_s_mem()));
  mustSucceed(memory != nullptr && write(memory.get()) == 1);
  std::string text(BIO_ctrl_pending(memory.get()), '\0');
  mustSucceed(BIO_read(memory.get(), text.data(), static_cast<int>(text.size())) == static_cast<int>(text.size()));
  return text;
}

std::string certificatePem(X509* certificate) {
  return pemText([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
}

std::string keyPem(EVP_PKEY* key) {
  return pemText([&](BIO* bio) { return PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr); });
}

}  // namespace

CertificateFiles makeCertificates(const std::string& folder) {
  makeFolder(folder);
  const Key authority_key = makeKey();
  const Certificate authority = makeAuthority(authority_key.get());
  const Key server_key = makeKey();
  const Certificate server = makeServer(server_key.get(), authority.get(), authority_key.get());
  CertificateFiles files{folder + "/ca.pem", folder + "/cert.pem", folder + "/key.pem"};
  replaceFile(files.key, keyPem(server_key.get()), kPrivateMode);
  replaceFile(files.certificate, certificatePem(server.get()), kPublicMode);
  replaceFile(files.authority, certificatePem(authority.get()), kPublicMode);
  return files;
}

}  // namespace morvik_service
