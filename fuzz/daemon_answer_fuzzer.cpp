// The request daemon's answer to a manual backup request, through
// BackupServiceImpl::parseRequestResponse. The parser either reads the job id
// or throws KSServiceException 130, having at most zeroed the id.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "services/BackupServiceImpl.h"
#include "services/KSServiceException.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The handler's REST client reads the fake master configuration, which
  // names a master server until a test says otherwise.
  static const BackupServiceImpl handler;

  const std::string answer(reinterpret_cast<const char*>(data), size);
  const unsigned long untouched = 0x5a5a5a5a5a5a5a5aUL;
  unsigned long jobId = untouched;
  try {
    FUZZ_CHECK(handler.parseRequestResponse(answer, jobId) == 0);
  } catch (const KSServiceException& e) {
    FUZZ_CHECK(e.m_code == 130);
    FUZZ_CHECK(jobId == untouched || jobId == 0);
  }
  return 0;
}
