// Host and port of a base URL, through libcurl's URL parser.
#ifndef KSCDP_TOOLS_DOCTOR_URL_PARTS_H_
#define KSCDP_TOOLS_DOCTOR_URL_PARTS_H_

#include <string>

namespace doctor {

struct UrlParts {
  std::string host;  // without the brackets of an IPv6 address
  int port = 0;      // the scheme's default when the URL names none
};

// False when `url` is not an absolute http or https URL with a host.
bool splitUrl(const std::string& url, UrlParts& parts);

}  // namespace doctor

#endif  // KSCDP_TOOLS_DOCTOR_URL_PARTS_H_
