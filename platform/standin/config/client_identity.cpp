#include "platform/standin/config/client_identity.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

#include "platform/standin/files/private_file.h"

namespace standin {
namespace {

// A certificate chain of a few certificates is a few KiB.
const size_t kLargestCertificateFile = 1024 * 1024;

struct BioRelease {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct X509Release {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct KeyRelease {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};

std::unique_ptr<BIO, BioRelease> memoryBio(const std::string& text) {
  return std::unique_ptr<BIO, BioRelease>(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// A passphrase prompt would wait on the engine's terminal: encrypted keys fail.
int noPassphrase(char*, int, int, void*) { return -1; }

}  // namespace

bool loadClientIdentity(const std::string& certFile, const std::string& keyFile, const char* certKey,
                        const char* keyKey, ClientIdentity& identity, std::string& error) {
  if (certFile.empty() || keyFile.empty()) {
    error = std::string("only one of ") + certKey + " and " + keyKey +
            " is set: a client certificate needs both; refused, nothing sent";
    return false;
  }
  ClientIdentity read;
  if (!readCheckedFile(certFile, certKey, kLargestCertificateFile, false, read.certificate, error) ||
      !readCheckedFile(keyFile, keyKey, kLargestSecretFile, true, read.key, error)) {
    error += "; nothing sent";
    return false;
  }
  const auto certBio = memoryBio(read.certificate);
  const auto keyBio = memoryBio(read.key);
  const std::unique_ptr<X509, X509Release> certificate(
      certBio ? PEM_read_bio_X509(certBio.get(), nullptr, &noPassphrase, nullptr) : nullptr);
  const std::unique_ptr<EVP_PKEY, KeyRelease> key(
      keyBio ? PEM_read_bio_PrivateKey(keyBio.get(), nullptr, &noPassphrase, nullptr) : nullptr);
  error.clear();
  if (!certificate) {
    error = std::string(certKey) + " " + certFile + " holds no PEM certificate: refused, nothing sent";
  } else if (!key) {
    error = std::string(keyKey) + " " + keyFile + " holds no unencrypted PEM private key: refused, nothing sent";
  } else if (X509_check_private_key(certificate.get(), key.get()) != 1) {
    error = std::string(keyKey) + " " + keyFile + " is not the key of " + certKey + " " + certFile +
            ": they do not match; refused, nothing sent";
  }
  // What OpenSSL noted of a failed parse must not be read as the cause of a
  // later failure on this thread.
  ERR_clear_error();
  if (!error.empty()) return false;
  identity = std::move(read);
  return true;
}

}  // namespace standin
