// Where the request-daemon stand-in sends a request.
#ifndef KSCDP_PLATFORM_STANDIN_KSQD_URL_H_
#define KSCDP_PLATFORM_STANDIN_KSQD_URL_H_

#include <string>

#include "config_file.h"

namespace standin {

// "<ksqd_url>/ksqd/<kind>". Without a (non-empty) "ksqd_url" setting the base
// is http://<masterServer>:8557, an IPv6 address in brackets. Slashes at the
// end of "ksqd_url" are dropped.
std::string ksqdRequestUrl(const ConfigValues& values, const std::string& masterServer, int kind);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_KSQD_URL_H_
