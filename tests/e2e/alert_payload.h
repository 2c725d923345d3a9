// The wire form of an alert as a subscriber of keepstone/notifications sees it.
#ifndef KSCDP_TESTS_E2E_ALERT_PAYLOAD_H_
#define KSCDP_TESTS_E2E_ALERT_PAYLOAD_H_

#include <string>

// `attributes` is the inside of the attributes object, as published.
inline std::string alertPayload(const std::string& key, const char* priority, const char* severity,
                                const std::string& attributes) {
  return std::string(R"({"version":1,"producerType":"Keepstone","producerSubType":"CDP",)") +
         R"("notificationType":"CDP Backup Engine","priority":")" + priority + R"(","severity":")" + severity +
         R"(","messageKey":")" + key + R"(","attributes":{)" + attributes + "}}";
}

#endif  // KSCDP_TESTS_E2E_ALERT_PAYLOAD_H_
