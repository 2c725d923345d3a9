// The HTTP client's own keys of the master configuration file ("rest_url",
// "ca_file", "http_timeout"), as the file says now.
#ifndef KSCDP_PLATFORM_STANDIN_HTTP_SETTINGS_H_
#define KSCDP_PLATFORM_STANDIN_HTTP_SETTINGS_H_

#include <string>

#include "curl_exchange.h"

namespace standin {

struct HttpSettings {
  std::string restUrl;  // empty when absent or empty
  CurlSettings curl;
};

// The settings of the file as it stands: the file is parsed again whenever
// its identity (device, inode), size or modification time differs from the
// last parse, so that a change takes effect on the next request without a
// parse per request. A missing or unreadable file gives the defaults.
// Thread-safe.
HttpSettings currentHttpSettings();

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_HTTP_SETTINGS_H_
