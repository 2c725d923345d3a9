// A client certificate and its private key, read once for one connection and
// checked before anything is sent: the key private to this process's user,
// the two a pair.
#ifndef KSCDP_PLATFORM_STANDIN_CONFIG_CLIENT_IDENTITY_H_
#define KSCDP_PLATFORM_STANDIN_CONFIG_CLIENT_IDENTITY_H_

#include <string>

namespace standin {

struct ClientIdentity {
  std::string certificate;  // PEM text, as read
  std::string key;          // PEM text, as read
};

// Reads the PEM certificate at `certFile` and the PEM key at `keyFile`, named
// `certKey` and `keyKey` in what it says (the configuration keys). The key
// file is a secret (see readCheckedFile). False, with one sentence in `error`
// naming the file and what to do, when a file cannot be read, is refused, does
// not hold what it should, or the key is not the certificate's. Thread-safe.
bool loadClientIdentity(const std::string& certFile, const std::string& keyFile, const char* certKey,
                        const char* keyKey, ClientIdentity& identity, std::string& error);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CONFIG_CLIENT_IDENTITY_H_
