// The stand-ins' limit on one HTTP exchange: the "http_timeout" setting.
#ifndef KSCDP_PLATFORM_STANDIN_HTTP_TIMEOUT_H_
#define KSCDP_PLATFORM_STANDIN_HTTP_TIMEOUT_H_

#include "config_file.h"

namespace standin {

// Seconds from "http_timeout" when it is a positive whole number, else 30.
long httpTimeoutSeconds(const ConfigValues& values);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_HTTP_TIMEOUT_H_
