// JSON string literals from arbitrary bytes.
#ifndef KSCDP_PLATFORM_STANDIN_MQTT_JSON_STRING_H_
#define KSCDP_PLATFORM_STANDIN_MQTT_JSON_STRING_H_

#include <string>

namespace standin {

// Appends `bytes` to `out` as a quoted JSON string. Quote, backslash and
// control bytes are escaped (\b \f \n \r \t, else \u00XX); well-formed UTF-8
// is copied as it is; every maximal ill-formed subsequence becomes U+FFFD, so
// the result is always valid UTF-8.
void appendJsonString(std::string& out, const std::string& bytes);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_MQTT_JSON_STRING_H_
