// Logging library of the product.
//
// Every log line of the library and of the stand-ins goes through
// ksu_logmsg_str, at one of the levels named here.
#ifndef KSCDP_PLATFORM_KSU_LOG_H_
#define KSCDP_PLATFORM_KSU_LOG_H_

#include <string>

const int TRACE_LEVEL = 2;     // raw traces: the daemon's answer, identifier conversions
const int PROGRESS_LEVEL = 4;  // each request, each result
const int FAILURE_LEVEL = 16;  // failures, and the details of each VM evicted

// Writes one record. The result carries nothing the library uses.
int ksu_logmsg_str(int level, const std::string& function, const std::string& message);

#endif  // KSCDP_PLATFORM_KSU_LOG_H_
