// Where the stand-ins reach a service of the master: one way of writing a
// host into a URL or an address, and one reading of the URL settings.
#ifndef KSCDP_PLATFORM_STANDIN_CONFIG_SERVICE_URL_H_
#define KSCDP_PLATFORM_STANDIN_CONFIG_SERVICE_URL_H_

#include <string>

#include "platform/standin/config/config_file.h"

namespace standin {

// `host` as it stands before ":<port>" in a URL or an address: a bare IPv6
// address ("::1") in brackets, everything else (names, IPv4 addresses, an
// address already in brackets) unchanged.
std::string urlHost(const std::string& host);

// "<urlHost(host)>:<port>".
std::string hostAndPort(const std::string& host, int port);

// The base URL that the setting `key` gives, or `fallback` when the key is
// absent or empty. The setting must be an http:// or https:// URL (scheme in
// any case), with credentials ("user:password@") only over https://;
// otherwise the result is false and `problem` says what is wrong and what to
// do, naming the key and the file, never the password.
bool serviceBaseUrl(const ConfigValues& values, const std::string& key, const std::string& fallback, std::string& url,
                    std::string& problem);
// The same for `configured`, the value of `key` already read (empty when
// absent).
bool serviceBaseUrl(const std::string& key, const std::string& configured, const std::string& fallback,
                    std::string& url, std::string& problem);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CONFIG_SERVICE_URL_H_
