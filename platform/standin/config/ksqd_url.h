// Where the request-daemon stand-in sends a request.
#ifndef KSCDP_PLATFORM_STANDIN_CONFIG_KSQD_URL_H_
#define KSCDP_PLATFORM_STANDIN_CONFIG_KSQD_URL_H_

#include <string>

#include "platform/standin/config/config_file.h"

namespace standin {

// "<ksqd_url>/ksqd/<kind>". Without a (non-empty) "ksqd_url" setting the base
// is https://<masterServer>:8557, a bare IPv6 address in brackets. Slashes at
// the end of "ksqd_url" are dropped. False, with `problem` set, when
// "ksqd_url" is not an http or https URL.
bool ksqdRequestUrl(const ConfigValues& values, const std::string& masterServer, int kind, std::string& url,
                    std::string& problem);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CONFIG_KSQD_URL_H_
