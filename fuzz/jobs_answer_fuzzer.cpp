// The jobs interface's answer, as the master server (or anything posing as
// it) may send it, through JobServiceImpl::parseResponse. The parser either
// fills both results or throws KSServiceException 130 and leaves them alone.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "services/JobServiceImpl.h"
#include "services/KSServiceException.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The handler's REST client reads the fake master configuration, which
  // names a master server until a test says otherwise.
  static const JobServiceImpl handler;

  const std::string body(reinterpret_cast<const char*>(data), size);
  const std::string untouchedState = "\x01untouched";
  const int untouchedStatus = -0x5a5a5a5a;
  std::string state = untouchedState;
  int status = untouchedStatus;
  try {
    FUZZ_CHECK(handler.parseResponse(body, state, status) == 0);
  } catch (const KSServiceException& e) {
    FUZZ_CHECK(e.m_code == 130);
    FUZZ_CHECK(state == untouchedState);
    FUZZ_CHECK(status == untouchedStatus);
  }
  return 0;
}
