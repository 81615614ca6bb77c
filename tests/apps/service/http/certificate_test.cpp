#include "apps/service/http/certificate.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "apps/service/base/files.h"
#include "apps/service/base/refusal.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::TemporaryFolder;

constexpr long kSecondsPerDay = 86400;
constexpr long kAMinute = 60;
constexpr const char* kNamesOfTheServer = "DNS:localhost,IP:127.0.0.1,IP:::1";

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

Owned<EVP_PKEY> readKey(const std::string& path) {
  const std::string pem = readSmallFile(path);
  return Owned<EVP_PKEY>(PEM_read_bio_PrivateKey(open(pem).get(), nullptr, nullptr, nullptr));
}

std::string pemOf(X509* certificate) {
  const Owned<BIO> memory(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(memory.get(), certificate);
  std::string text(BIO_ctrl_pending(memory.get()), '\0');
  BIO_read(memory.get(), text.data(), static_cast<int>(text.size()));
  return text;
}

/// X509_V_OK, or what a strict client finds wrong.
int verify(X509* authority, X509* server) {
  const Owned<X509_STORE> trusted(X509_STORE_new());
  X509_STORE_add_cert(trusted.get(), authority);
  const Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
  X509_STORE_CTX_init(context.get(), trusted.get(), server, nullptr);
  X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_SSL_SERVER);
  X509_VERIFY_PARAM_set_flags(X509_STORE_CTX_get0_param(context.get()), X509_V_FLAG_X509_STRICT);
  X509_verify_cert(context.get());
  return X509_STORE_CTX_get_error(context.get());
}

Owned<X509> expiringCopyOf(X509* authority, EVP_PKEY* key) {
  Owned<X509> copy(X509_dup(authority));
  X509_gmtime_adj(X509_getm_notAfter(copy.get()), kRemainingDays * kSecondsPerDay - kAMinute);
  X509_sign(copy.get(), key, EVP_sha256());
  return copy;
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, ::stat(path.c_str(), &status));
  return status.st_mode & 0777U;
}

class CertificateTest : public testing::Test {
 protected:
  TemporaryFolder folder_;
  CertificateFiles files_ = makeCertificates(folder_.path("tls"));
  Owned<X509> authority_ = readCertificate(files_.authority);
  Owned<X509> server_ = readCertificate(files_.certificate);
  std::string authority_key_ = folder_.path("tls/ca-key.pem");

  CertificateFiles makeAgain() { return makeCertificates(folder_.path("tls")); }
  std::vector<std::string> contents() const {
    std::vector<std::string> all;
    for (const std::string& path : {files_.authority, files_.certificate, files_.key})
      all.push_back(readSmallFile(path));
    return all;
  }
  /// Signed as the authority signs; for the server's key if none is given.
  Owned<X509> signedBy(EVP_PKEY* authority_key, const char* names, int days = kCertificateDays,
                       EVP_PKEY* key = nullptr) const {
    Owned<X509> copy(X509_dup(server_.get()));
    const int at = X509_get_ext_by_NID(copy.get(), NID_subject_alt_name, -1);
    X509_EXTENSION_free(X509_delete_ext(copy.get(), at));
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, names);
    X509_add_ext(copy.get(), extension, -1);
    X509_EXTENSION_free(extension);
    X509_gmtime_adj(X509_getm_notAfter(copy.get()), days * kSecondsPerDay - kAMinute);
    if (key != nullptr)
      X509_set_pubkey(copy.get(), key);
    X509_sign(copy.get(), authority_key, EVP_sha256());
    return copy;
  }
};

TEST_F(CertificateTest, TheAuthorityVouchesForTheServer) {
  EXPECT_EQ(X509_V_OK, verify(authority_.get(), server_.get()));
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

TEST_F(CertificateTest, TheAuthorityCanVouchForNobodyElse) {
  const Owned<EVP_PKEY> authority_key = readKey(authority_key_);
  ASSERT_EQ(1, X509_check_private_key(authority_.get(), authority_key.get()));
  EXPECT_EQ(X509_V_OK, verify(authority_.get(), signedBy(authority_key.get(), "DNS:localhost").get()));
  EXPECT_EQ(X509_V_OK, verify(authority_.get(), signedBy(authority_key.get(), "IP:127.0.0.1").get()));
  for (const char* name : {"DNS:own.example", "IP:192.0.2.7", "IP:::2"}) {
    EXPECT_EQ(X509_V_ERR_PERMITTED_VIOLATION, verify(authority_.get(), signedBy(authority_key.get(), name).get()))
        << name;
  }
}

TEST_F(CertificateTest, BothKeysFitAndArePrivate) {
  EXPECT_EQ(1, X509_check_private_key(server_.get(), readKey(files_.key).get()));
  EXPECT_EQ(1, X509_check_private_key(authority_.get(), readKey(authority_key_).get()));
  EXPECT_EQ(kPrivateMode, modeOf(files_.key));
  EXPECT_EQ(kPrivateMode, modeOf(authority_key_));
}

TEST_F(CertificateTest, WhatIsThereAndStillGoodIsKept) {
  const auto before = contents();
  EXPECT_EQ("", makeAgain().why_replaced);
  EXPECT_EQ(before, contents());
}

TEST_F(CertificateTest, KeysThatOthersCouldReadAreClosedToThem) {
  ASSERT_EQ(0, ::chmod(files_.key.c_str(), 0644));
  ASSERT_EQ(0, ::chmod(authority_key_.c_str(), 0644));
  EXPECT_EQ("", makeAgain().why_replaced);
  EXPECT_EQ(kPrivateMode, modeOf(files_.key));
  EXPECT_EQ(kPrivateMode, modeOf(authority_key_));
}

TEST_F(CertificateTest, TheAuthorityIsKeptWhenOnlyAServerCertificateIsDue) {
  const std::string authority = readSmallFile(files_.authority);
  const std::string expired = pemOf(
      signedBy(readKey(authority_key_).get(), kNamesOfTheServer, kRemainingDays, readKey(files_.key).get()).get());
  const std::string for_others = pemOf(
      signedBy(readKey(authority_key_).get(), "DNS:localhost", kCertificateDays, readKey(files_.key).get()).get());
  for (const std::string& certificate : {std::string(), std::string("garbage"), expired, for_others}) {
    replaceFile(files_.certificate, certificate, kPublicMode);
    EXPECT_EQ("", makeAgain().why_replaced);
    EXPECT_EQ(authority, readSmallFile(files_.authority));
    EXPECT_NE(certificate, readSmallFile(files_.certificate));
    EXPECT_EQ(X509_V_OK, verify(authority_.get(), readCertificate(files_.certificate).get()));
    EXPECT_EQ(1, X509_check_private_key(readCertificate(files_.certificate).get(), readKey(files_.key).get()));
  }
}

TEST_F(CertificateTest, AnAuthorityWithoutItsKeyIsKeptAsLongAsItsServerCertificateIsGood) {
  std::filesystem::remove(authority_key_);
  const auto before = contents();
  EXPECT_EQ("", makeAgain().why_replaced);
  EXPECT_EQ(before, contents());
  std::filesystem::remove(files_.key);
  EXPECT_EQ("has no matching key, " + authority_key_ + ", to sign a new server certificate", makeAgain().why_replaced);
  EXPECT_EQ(X509_V_OK, verify(readCertificate(files_.authority).get(), readCertificate(files_.certificate).get()));
}

TEST_F(CertificateTest, AnAuthorityThatCannotBeUsedIsReplacedAndTheReasonTold) {
  const std::string server = readSmallFile(files_.certificate);
  const std::string expired = pemOf(expiringCopyOf(authority_.get(), readKey(authority_key_).get()).get());
  const std::pair<std::string, std::string> cases[] = {
      {"garbage", "holds no certificate"},
      {server, "is not the certificate of an authority"},
      {expired, "is not valid, or not for another day"},
  };
  for (const auto& [authority, reason] : cases) {
    replaceFile(files_.authority, authority, kPublicMode);
    EXPECT_EQ(reason, makeAgain().why_replaced);
    EXPECT_EQ("", makeAgain().why_replaced);
    EXPECT_EQ(X509_V_OK, verify(readCertificate(files_.authority).get(), readCertificate(files_.certificate).get()));
  }
}

TEST_F(CertificateTest, AFolderThatCannotBeIsRefused) {
  EXPECT_THROW(makeCertificates(files_.key + "/inside"), SetupError);
}

}  // namespace
}  // namespace morvik_service
