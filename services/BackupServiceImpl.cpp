#include "services/BackupServiceImpl.h"

#include <jansson.h>

#include <boost/make_shared.hpp>
#include <cstdlib>
#include <memory>
#include <new>
#include <sstream>

#include "platform/ksqd_client.h"
#include "platform/ksu_log.h"
#include "rest/ServiceCodes.h"
#include "services/JsonReference.h"
#include "services/KSServiceException.h"
#include "services/ServiceData.h"

namespace {

const char HANDLE_REQUEST_FUNCTION[] = "BackupServiceImpl::handleRequest";
const char CREATE_PAYLOAD_FUNCTION[] = "BackupServiceImpl::createRequestPayload";

// The request daemon's kind for a manual backup request.
const int MANUAL_BACKUP_REQUEST_KIND = 1;

const char POLICY_KEY[] = "policy";
const char JOB_ID_KEY[] = "jobid";

// Text that the daemon client or Jansson allocated with malloc.
struct FreeDeleter {
  void operator()(char* text) const { std::free(text); }
};
using MallocText = std::unique_ptr<char, FreeDeleter>;

// Each message is built in a stream of its own.
template <typename... Parts>
std::string message(const Parts&... parts) {
  std::ostringstream text;
  (text << ... << parts);
  return text.str();
}

}  // namespace

BackupServiceImpl::BackupServiceImpl() : m_curlWrapper(boost::make_shared<KSCurlWrapper>()) {}

BackupServiceImpl::~BackupServiceImpl() {}

int BackupServiceImpl::handleRequest(ServiceData* data) {
  auto* request = dynamic_cast<EvictionServiceData*>(data);
  if (request == nullptr) {
    throw KSServiceException(INVALID_REQUEST_CODE, "Invalid shared common object is passed to worker service");
  }
  ksu_logmsg_str(PROGRESS_LEVEL, HANDLE_REQUEST_FUNCTION, message("PolicyName: ", request->policyName));
  const std::string payload = createRequestPayload(request->policyName);
  ksu_logmsg_str(PROGRESS_LEVEL, HANDLE_REQUEST_FUNCTION, message("Backup request payload: ", payload));

  char* answer = nullptr;
  const int result =
      invoke_ksqd_cct_request(request->masterServerName.c_str(), MANUAL_BACKUP_REQUEST_KIND, payload.c_str(), &answer);
  if (result != 0) {
    // The daemon client hands back no answer when it fails, so there is
    // nothing to release here.
    const std::string failure = message("Failed to invoke Ksqd CCT request. Return code:", result);
    ksu_logmsg_str(FAILURE_LEVEL, HANDLE_REQUEST_FUNCTION, failure);
    throw KSServiceException(DAEMON_REQUEST_FAILED_CODE, failure);
  }

  // From here the answer is ours, released on every way out. A success
  // without an answer reads as an empty answer, which is not JSON.
  const MallocText ownedAnswer(answer);
  const std::string response = ownedAnswer != nullptr ? ownedAnswer.get() : "";
  ksu_logmsg_str(TRACE_LEVEL, HANDLE_REQUEST_FUNCTION,
                 message("invoked  ksqd cct request: json_output=", response, " ret Val:", result));

  unsigned long jobId = 0;
  parseRequestResponse(response, jobId);
  request->jobId = jobId;
  ksu_logmsg_str(PROGRESS_LEVEL, HANDLE_REQUEST_FUNCTION, message("BackupServiceImpl: Backup JobID: ", jobId));
  return forward(data);
}

std::string BackupServiceImpl::createRequestPayload(const std::string& policyName) const {
  if (policyName.empty()) {
    ksu_logmsg_str(FAILURE_LEVEL, CREATE_PAYLOAD_FUNCTION, "Empty policy name.");
    throw KSServiceException(INVALID_REQUEST_CODE, "Empty policy name");
  }
  const JsonReference request(json_object());
  // json_string refuses text that is not UTF-8; the object then stays empty.
  json_object_set_new(request.get(), POLICY_KEY, json_string(policyName.c_str()));
  const MallocText text(json_dumps(request.get(), 0));
  if (text == nullptr) throw std::bad_alloc();
  return text.get();
}

int BackupServiceImpl::parseRequestResponse(const std::string& response, unsigned long& jobId) const {
  const JsonReference answer(json_loads(response.c_str(), 0, nullptr));
  if (answer == nullptr) {
    throw KSServiceException(UNPARSABLE_ANSWER_CODE, "Could not parse Backup API response message");
  }
  const json_t* id = json_object_get(answer.get(), JOB_ID_KEY);
  if (id == nullptr) {
    throw KSServiceException(UNPARSABLE_ANSWER_CODE,
                             "Could not parse ksqd eviction request response. Missing attribute: jobid");
  }
  if (!json_is_integer(id)) {
    jobId = 0;
    throw KSServiceException(
        UNPARSABLE_ANSWER_CODE,
        "Could not parse ksqd eviction request response. Invalid format received for Job id. Not integer.");
  }
  jobId = static_cast<unsigned long>(json_integer_value(id));
  return 0;
}
