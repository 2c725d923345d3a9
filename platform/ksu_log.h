// Logging library of the product.
//
// Every log line of the library goes through ksu_logmsg_str. Levels in use:
// 2 raw traces, 4 progress, 16 failures and eviction details.
#ifndef KSCDP_PLATFORM_KSU_LOG_H_
#define KSCDP_PLATFORM_KSU_LOG_H_

#include <string>

// Writes one record. The result carries nothing the library uses.
int ksu_logmsg_str(int level, const std::string& function, const std::string& message);

#endif  // KSCDP_PLATFORM_KSU_LOG_H_
