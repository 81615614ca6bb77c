#include "apps/service/certificate.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <memory>

#include "apps/service/files.h"
#include "apps/service/refusal.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::TemporaryFolder;

struct FreeOpenSsl {
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(X509_STORE* store) const { X509_STORE_free(store); }
  void operator()(X509_STORE_CTX* context) const { X509_STORE_CTX_free(context); }
};
template <typename T>
using Owned = std::unique_ptr<T, FreeOpenSsl>;

Owned<BIO> open(const std::string& pem) {
  return Owned<BIO>(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

Owned<X509> readCertificate(const std::string& path) {
  const std::string pem = readSmallFile(path);
  return Owned<X509>(PEM_read_bio_X509(open(pem).get(), nullptr, nullptr, nullptr));
}

class CertificateTest : public testing::Test {
 protected:
  TemporaryFolder folder_;
  CertificateFiles files_ = makeCertificates(folder_.path("tls"));
  Owned<X509> authority_ = readCertificate(files_.authority);
  Owned<X509> server_ = readCertificate(files_.certificate);
};

TEST_F(CertificateTest, TheAuthorityVouchesForTheServer) {
  const Owned<X509_STORE> trusted(X509_STORE_new());
  ASSERT_EQ(1, X509_STORE_add_cert(trusted.get(), authority_.get()));
  const Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
  ASSERT_EQ(1, X509_STORE_CTX_init(context.get(), trusted.get(), server_.get(), nullptr));
  X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_SSL_SERVER);
  X509_VERIFY_PARAM_set_flags(X509_STORE_CTX_get0_param(context.get()), X509_V_FLAG_X509_STRICT);
  EXPECT_EQ(1, X509_verify_cert(context.get()))
      << X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()));
}

TEST_F(CertificateTest, TheServersNamesAreThoseOfThisMachine) {
  EXPECT_EQ(1, X509_check_host(server_.get(), "localhost", 0, 0, nullptr));
  EXPECT_EQ(1, X509_check_ip_asc(server_.get(), "127.0.0.1", 0));
  EXPECT_EQ(1, X509_check_ip_asc(server_.get(), "::1", 0));
  EXPECT_EQ(0, X509_check_host(server_.get(), "evil.example", 0, 0, nullptr));
}

TEST_F(CertificateTest, TheServerCannotSignForOthers) {
  EXPECT_EQ(0, X509_check_ca(server_.get()));
  EXPECT_EQ(1, X509_check_ca(authority_.get()));
}

TEST_F(CertificateTest, TheKeyFitsAndIsPrivate) {
  const std::string pem = readSmallFile(files_.key);
  const Owned<EVP_PKEY> key(PEM_read_bio_PrivateKey(open(pem).get(), nullptr, nullptr, nullptr));
  EXPECT_EQ(1, X509_check_private_key(server_.get(), key.get()));
  struct stat status {};
  ASSERT_EQ(0, ::stat(files_.key.c_str(), &status));
  EXPECT_EQ(kPrivateMode, status.st_mode & 0777U);
}

TEST_F(CertificateTest, MakingThemAgainReplacesThem) {
  const std::string before = readSmallFile(files_.certificate);
  makeCertificates(folder_.path("tls"));
  EXPECT_NE(before, readSmallFile(files_.certificate));
}

TEST_F(CertificateTest, AFolderThatCannotBeIsRefused) {
  EXPECT_THROW(makeCertificates(files_.key + "/inside"), SetupError);
}

}  // namespace
}  // namespace morvik_service
