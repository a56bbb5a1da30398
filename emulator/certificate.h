// A self-signed certificate for the emulator's TLS listener, made fresh at each start.
#pragma once

#include <memory>
#include <optional>
#include <string>

struct x509_st;
struct evp_pkey_st;

namespace wdc::emu {

// A key pair and its certificate, valid for IP:127.0.0.1 and DNS:localhost for 30 days, marked as
// a CA so clients can use the certificate itself as their trust anchor. Move-only; frees the
// OpenSSL objects it owns.
class SelfSignedCertificate {
 public:
  // Makes a new P-256 key and certificate. Returns nullopt and a reason on failure.
  static std::optional<SelfSignedCertificate> generate(std::string* error = nullptr);

  SelfSignedCertificate(SelfSignedCertificate&&) noexcept;
  SelfSignedCertificate& operator=(SelfSignedCertificate&&) noexcept;
  ~SelfSignedCertificate();

  // Borrowed; valid while this object lives.
  x509_st* certificate() const { return certificate_; }
  evp_pkey_st* privateKey() const { return key_; }
  const std::string& pem() const { return pem_; }

 private:
  SelfSignedCertificate() = default;
  x509_st* certificate_ = nullptr;
  evp_pkey_st* key_ = nullptr;
  std::string pem_;
};

}  // namespace wdc::emu
