#include "apps/service/http/certificate.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>

#include "apps/service/base/files.h"
#include "apps/service/base/refusal.h"

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
constexpr const char* kNamesOfTheServer = "DNS:localhost,IP:127.0.0.1,IP:::1";
constexpr const char* kNamesOfThisMachineAlone =
    "critical,permitted;DNS:localhost,permitted;IP:127.0.0.0/255.0.0.0,"
    "permitted;IP:::1/FFFF:FFFF:FFFF:FFFF:FFFF:FFFF:FFFF:FFFF";

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

// What authority and server certificate have in common. Valid since yesterday, because clocks differ.
Certificate makeUnsigned(const std::string& name, EVP_PKEY* key, int days) {
  Certificate certificate(X509_new());
  mustSucceed(certificate != nullptr && X509_set_version(certificate.get(), kX509Version3) == 1);
  setRandomSerial(certificate.get());
  mustSucceed(X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kSecondsPerDay) != nullptr);
  mustSucceed(X509_gmtime_adj(X509_getm_notAfter(certificate.get()), days * kSecondsPerDay) != nullptr);
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
  Certificate certificate = makeUnsigned("Local tracking service authority", key, kAuthorityDays);
  addExtension(certificate.get(), certificate.get(), NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
  addExtension(certificate.get(), certificate.get(), NID_key_usage, "critical,keyCertSign");
  addExtension(certificate.get(), certificate.get(), NID_name_constraints, kNamesOfThisMachineAlone);
  sign(certificate.get(), certificate.get(), key);
  return certificate;
}

Certificate makeServer(EVP_PKEY* key, X509* authority, EVP_PKEY* authority_key) {
  Certificate certificate = makeUnsigned("localhost", key, kCertificateDays);
  addExtension(certificate.get(), authority, NID_basic_constraints, "critical,CA:FALSE");
  addExtension(certificate.get(), authority, NID_key_usage, "critical,digitalSignature");
  addExtension(certificate.get(), authority, NID_ext_key_usage, "serverAuth");
  addExtension(certificate.get(), authority, NID_subject_alt_name, kNamesOfTheServer);
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

struct FreeVerification {
  void operator()(X509_STORE* store) const { X509_STORE_free(store); }
  void operator()(X509_STORE_CTX* context) const { X509_STORE_CTX_free(context); }
};

// A certificate and its private key.
struct Identity {
  Key key;
  Certificate certificate;
};

bool isThere(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(path, ignored);
}

std::unique_ptr<BIO, FreeOpenSsl> memoryOf(const std::string& pem) {
  std::unique_ptr<BIO, FreeOpenSsl> memory(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  mustSucceed(memory != nullptr);
  return memory;
}

// The first certificate in the file; nothing if there is no such file or no certificate in it.
Certificate readCertificate(const std::string& path) {
  if (!isThere(path))
    return nullptr;
  const std::string pem = readSmallFile(path);
  return Certificate(PEM_read_bio_X509(memoryOf(pem).get(), nullptr, nullptr, nullptr));
}

Key readKey(const std::string& path) {
  if (!isThere(path))
    return nullptr;
  // A copied folder may have lost its modes. A file system without modes is not a reason to refuse.
  static_cast<void>(::chmod(path.c_str(), kPrivateMode));
  const std::string pem = readSmallFile(path);
  // Never asks for a password.
  const auto no_password = [](char*, int, int, void*) { return -1; };
  return Key(PEM_read_bio_PrivateKey(memoryOf(pem).get(), nullptr, no_password, nullptr));
}

Identity readIdentity(const std::string& certificate_path, const std::string& key_path) {
  return {readKey(key_path), readCertificate(certificate_path)};
}

bool fits(const Identity& identity) {
  return identity.certificate != nullptr && identity.key != nullptr &&
         X509_check_private_key(identity.certificate.get(), identity.key.get()) == 1;
}

bool isGoodForLonger(X509* certificate) {
  std::time_t later = std::time(nullptr) + kRemainingDays * kSecondsPerDay;
  return X509_cmp_current_time(X509_get0_notBefore(certificate)) < 0 &&
         X509_cmp_time(X509_get0_notAfter(certificate), &later) > 0;
}

// As a client verifies it.
bool vouchesFor(X509* authority, X509* server) {
  const std::unique_ptr<X509_STORE, FreeVerification> trusted(X509_STORE_new());
  const std::unique_ptr<X509_STORE_CTX, FreeVerification> context(X509_STORE_CTX_new());
  mustSucceed(trusted != nullptr && context != nullptr && X509_STORE_add_cert(trusted.get(), authority) == 1 &&
              X509_STORE_CTX_init(context.get(), trusted.get(), server, nullptr) == 1);
  X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_SSL_SERVER);
  return X509_verify_cert(context.get()) == 1;
}

bool hasTheNames(X509* server) {
  return X509_check_host(server, "localhost", 0, 0, nullptr) == 1 && X509_check_ip_asc(server, "127.0.0.1", 0) == 1 &&
         X509_check_ip_asc(server, "::1", 0) == 1;
}

// What is wrong with an existing authority; "" for nothing.
std::string problemOf(X509* authority) {
  if (X509_check_ca(authority) != 1)
    return "is not the certificate of an authority";
  return isGoodForLonger(authority) ? "" : "is not valid, or not for another day";
}

bool serves(const Identity& server, X509* authority) {
  return fits(server) && isGoodForLonger(server.certificate.get()) && hasTheNames(server.certificate.get()) &&
         vouchesFor(authority, server.certificate.get());
}

Identity makeServerIdentity(const Identity& authority) {
  Key key = makeKey();
  Certificate certificate = makeServer(key.get(), authority.certificate.get(), authority.key.get());
  return {std::move(key), std::move(certificate)};
}

Identity makeAuthorityIdentity() {
  Key key = makeKey();
  Certificate certificate = makeAuthority(key.get());
  return {std::move(key), std::move(certificate)};
}

// The key first: a certificate without its key would be mistaken for one whose key was lost.
void write(const Identity& identity, const std::string& certificate_path, const std::string& key_path) {
  replaceFile(key_path, keyPem(identity.key.get()), kPrivateMode);
  replaceFile(certificate_path, certificatePem(identity.certificate.get()), kPublicMode);
}

}  // namespace

CertificateFiles makeCertificates(const std::string& folder) {
  makeFolder(folder);
  CertificateFiles files{folder + "/ca.pem", folder + "/cert.pem", folder + "/key.pem", ""};
  const std::string authority_key = folder + "/ca-key.pem";
  Identity authority = readIdentity(files.authority, authority_key);
  Identity server = readIdentity(files.certificate, files.key);
  if (authority.certificate != nullptr)
    files.why_replaced = problemOf(authority.certificate.get());
  else if (isThere(files.authority))
    files.why_replaced = "holds no certificate";
  const bool is_kept = authority.certificate != nullptr && files.why_replaced.empty();
  if (is_kept && serves(server, authority.certificate.get()))
    return files;
  if (is_kept && !fits(authority))
    files.why_replaced = "has no matching key, " + authority_key + ", to sign a new server certificate";
  if (!is_kept || !fits(authority)) {
    authority = makeAuthorityIdentity();
    write(authority, files.authority, authority_key);
  }
  write(makeServerIdentity(authority), files.certificate, files.key);
  return files;
}

}  // namespace morvik_service
