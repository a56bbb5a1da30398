#include "emulator/certificate.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <utility>

namespace wdc::emu {
namespace {

bool addExtension(X509* cert, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  if (ext == nullptr) return false;
  const bool ok = X509_add_ext(cert, ext, -1) == 1;
  X509_EXTENSION_free(ext);
  return ok;
}

}  // namespace

std::optional<SelfSignedCertificate> SelfSignedCertificate::generate(std::string* error) {
  auto fail = [&](const char* what) -> std::optional<SelfSignedCertificate> {
    if (error) *error = std::string("cannot make the emulator certificate: ") + what;
    return std::nullopt;
  };
  SelfSignedCertificate result;
  result.key_ = EVP_EC_gen("P-256");
  if (result.key_ == nullptr) return fail("key generation failed");
  result.certificate_ = X509_new();
  X509* cert = result.certificate_;
  if (cert == nullptr) return fail("X509_new failed");
  X509_set_version(cert, 2);
  // Each run makes a new key under the same issuer name; the clients we serve trust the
  // certificate itself, so a fixed serial cannot confuse them.
  ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert), 30L * 24 * 3600);
  X509_set_pubkey(cert, result.key_);
  X509_NAME* name = X509_get_subject_name(cert);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(cert, name);
  if (!addExtension(cert, NID_basic_constraints, "critical,CA:TRUE") ||
      !addExtension(cert, NID_subject_key_identifier, "hash") ||
      !addExtension(cert, NID_key_usage, "critical,digitalSignature,keyCertSign") ||
      !addExtension(cert, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost")) {
    return fail("cannot add extensions");
  }
  if (X509_sign(cert, result.key_, EVP_sha256()) == 0) return fail("signing failed");

  BIO* bio = BIO_new(BIO_s_mem());
  if (bio == nullptr || PEM_write_bio_X509(bio, cert) != 1) {
    BIO_free(bio);
    return fail("cannot write PEM");
  }
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  result.pem_.assign(data, static_cast<size_t>(size));
  BIO_free(bio);
  return result;
}

SelfSignedCertificate::SelfSignedCertificate(SelfSignedCertificate&& other) noexcept
    : certificate_(std::exchange(other.certificate_, nullptr)),
      key_(std::exchange(other.key_, nullptr)),
      pem_(std::move(other.pem_)) {}

SelfSignedCertificate& SelfSignedCertificate::operator=(SelfSignedCertificate&& other) noexcept {
  if (this != &other) {
    X509_free(certificate_);
    EVP_PKEY_free(key_);
    certificate_ = std::exchange(other.certificate_, nullptr);
    key_ = std::exchange(other.key_, nullptr);
    pem_ = std::move(other.pem_);
  }
  return *this;
}

SelfSignedCertificate::~SelfSignedCertificate() {
  X509_free(certificate_);
  EVP_PKEY_free(key_);
}

}  // namespace wdc::emu
