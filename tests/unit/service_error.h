// What a service call threw, as one string to compare with an expectation.
#ifndef KSCDP_TESTS_UNIT_SERVICE_ERROR_H_
#define KSCDP_TESTS_UNIT_SERVICE_ERROR_H_

#include <string>

#include "services/KSServiceException.h"

namespace unit {

// "<code> <message>" of the KSServiceException that `call` throws; "" when it
// returns. Any other exception reaches the test.
template <typename Call>
std::string serviceError(Call call) {
  try {
    call();
  } catch (const KSServiceException& e) {
    return std::to_string(e.m_code) + " " + e.what();
  }
  return "";
}

}  // namespace unit

#endif  // KSCDP_TESTS_UNIT_SERVICE_ERROR_H_
