#include "platform/standin/mqtt/broker_tls_context.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>

#include "platform/standin/config/client_identity.h"
#include "platform/standin/files/private_file.h"

namespace standin {
namespace {

const char kSystemCaDirectory[] = "/etc/ssl/certs";
// A bundle of every public CA is about 200 KiB.
const size_t kLargestCaFile = 4 * 1024 * 1024;

struct BioRelease {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using MemoryBio = std::unique_ptr<BIO, BioRelease>;

MemoryBio memoryBio(const std::string& text) {
  return MemoryBio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// A passphrase prompt would wait on the engine's terminal: encrypted keys fail.
int noPassphrase(char*, int, int, void*) { return -1; }

// Adds every certificate of the PEM `text` to the context's trust; false when
// it holds none.
bool trustCertificates(SSL_CTX* context, const std::string& text) {
  const MemoryBio bio = memoryBio(text);
  STACK_OF(X509_INFO)* infos = bio ? PEM_X509_INFO_read_bio(bio.get(), nullptr, &noPassphrase, nullptr) : nullptr;
  if (infos == nullptr) return false;
  X509_STORE* store = SSL_CTX_get_cert_store(context);
  int trusted = 0;
  for (int i = 0; i < sk_X509_INFO_num(infos); ++i) {
    X509* certificate = sk_X509_INFO_value(infos, i)->x509;
    if (certificate != nullptr && X509_STORE_add_cert(store, certificate) == 1) ++trusted;
  }
  sk_X509_INFO_pop_free(infos, X509_INFO_free);
  return trusted > 0;
}

// Presents the certificate chain and key of `identity`: the first
// certificate is the client's, the ones after it its intermediates.
bool presentIdentity(SSL_CTX* context, const ClientIdentity& identity) {
  const MemoryBio chain = memoryBio(identity.certificate);
  X509* leaf = chain ? PEM_read_bio_X509(chain.get(), nullptr, &noPassphrase, nullptr) : nullptr;
  const bool used = leaf != nullptr && SSL_CTX_use_certificate(context, leaf) == 1;
  X509_free(leaf);
  if (!used) return false;
  while (X509* intermediate = PEM_read_bio_X509(chain.get(), nullptr, &noPassphrase, nullptr)) {
    if (SSL_CTX_add0_chain_cert(context, intermediate) != 1) {
      X509_free(intermediate);
      return false;
    }
  }
  const MemoryBio keyBio = memoryBio(identity.key);
  EVP_PKEY* key = keyBio ? PEM_read_bio_PrivateKey(keyBio.get(), nullptr, &noPassphrase, nullptr) : nullptr;
  const bool keyUsed = key != nullptr && SSL_CTX_use_PrivateKey(context, key) == 1;
  EVP_PKEY_free(key);
  return keyUsed && SSL_CTX_check_private_key(context) == 1;
}

// The first refusal of this thread's handshake; a plain buffer, so that a
// thread's end needs nothing of this library.
thread_local char t_refusal[128];

int rememberRefusal(int verified, X509_STORE_CTX* store) {
  if (verified != 1 && t_refusal[0] == '\0') {
    std::snprintf(t_refusal, sizeof t_refusal, "%s", X509_verify_cert_error_string(X509_STORE_CTX_get_error(store)));
  }
  return verified;
}

bool verifyPeerNamed(SSL_CTX* context, const std::string& host) {
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, &rememberRefusal);
  X509_VERIFY_PARAM* parameters = SSL_CTX_get0_param(context);
  X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return isIpAddress(host) ? X509_VERIFY_PARAM_set1_ip_asc(parameters, host.c_str()) == 1
                           : X509_VERIFY_PARAM_set1_host(parameters, host.c_str(), host.size()) == 1;
}

SslContext makeContext(const BrokerSettings& settings, const std::string& host, std::string& error) {
  SslContext context(SSL_CTX_new(TLS_client_method()));
  if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
    error = "cannot set up TLS: OpenSSL could not make a context";
    return nullptr;
  }
  if (settings.caFile.empty()) {
    if (SSL_CTX_load_verify_dir(context.get(), kSystemCaDirectory) != 1) {
      error = std::string("cannot set up TLS: cannot use the system's CA directory ") + kSystemCaDirectory +
              "; set broker_ca_file";
      return nullptr;
    }
  } else {
    std::string text;
    if (!readCheckedFile(settings.caFile, "broker_ca_file", kLargestCaFile, false, text, error)) return nullptr;
    if (!trustCertificates(context.get(), text)) {
      error = "broker_ca_file " + settings.caFile +
              " holds no PEM certificate: set it to the CA bundle that signed "
              "the broker's certificate";
      return nullptr;
    }
  }
  if (!settings.certFile.empty()) {
    ClientIdentity identity;
    if (!loadClientIdentity(settings.certFile, settings.keyFile, "broker_cert_file", "broker_key_file", identity,
                            error)) {
      return nullptr;
    }
    if (!presentIdentity(context.get(), identity)) {
      error = "cannot set up TLS: OpenSSL refused broker_cert_file " + settings.certFile + " or its key";
      return nullptr;
    }
  }
  if (!verifyPeerNamed(context.get(), host)) {
    error = "cannot set up TLS: cannot verify the broker's name " + host;
    return nullptr;
  }
  return context;
}

}  // namespace

SslContext makeBrokerTlsContext(const BrokerSettings& settings, const std::string& host, std::string& error) {
  t_refusal[0] = '\0';
  SslContext context = makeContext(settings, host, error);
  // What OpenSSL noted here must not be read as the cause of a later failure
  // on this thread.
  ERR_clear_error();
  return context;
}

std::string refusedBrokerCertificate() { return t_refusal; }

}  // namespace standin
