// The HTTP stand-ins' own keys of the master configuration file: "rest_url",
// "ca_file", "cert_file", "key_file" and "http_timeout".
#ifndef KSCDP_PLATFORM_STANDIN_HTTP_HTTP_SETTINGS_H_
#define KSCDP_PLATFORM_STANDIN_HTTP_HTTP_SETTINGS_H_

#include <string>

#include "platform/standin/config/config_file.h"
#include "platform/standin/http/curl_exchange.h"

namespace standin {

struct HttpSettings {
  std::string restUrl;  // empty when absent or empty
  CurlSettings curl;
};

// The settings `config` holds; a file that could not be read gives the
// defaults. "http_timeout" counts when it is a positive whole number of
// seconds, else it is 30.
HttpSettings httpSettings(const ConfigSnapshot& config);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_HTTP_HTTP_SETTINGS_H_
