#include "services/BackupServiceImpl.h"

#include <cxxabi.h>
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

// A failure of the daemon client that is the daemon's own success status: it
// accepted the request, but its answer could not be handed back.
bool acceptedUnread(int result) { return result >= 200 && result <= 299; }

// What an operator is told when a request fails after the daemon accepted
// it, so that a later request for the VM can be told from a first one.
std::string mayHaveStarted(const EvictionServiceData& request) {
  return "the request daemon accepted the request, so a backup may have started for VM " + request.vmId;
}

// Logs the message that `compose` builds, or nothing when memory runs out
// while building or writing it: once the daemon has answered, a log line
// must not fail the request.
template <typename Compose>
void logAfterAnswer(int level, Compose compose) {
  try {
    ksu_logmsg_str(level, HANDLE_REQUEST_FUNCTION, compose());
  } catch (const abi::__forced_unwind&) {
    throw;  // a thread that is ending
  } catch (...) {
    // The line is lost; the request stands.
  }
}

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
    if (acceptedUnread(result)) {
      ksu_logmsg_str(FAILURE_LEVEL, HANDLE_REQUEST_FUNCTION,
                     message(mayHaveStarted(*request), " (its status ", result, ")"));
    }
    throw KSServiceException(DAEMON_REQUEST_FAILED_CODE, failure);
  }

  // From here a backup runs, and only an answer without a job id may fail
  // the request: the gateway would lose the VM's job for anything else. The
  // answer is ours, released on every way out; a success without one reads
  // as an empty answer, which is not JSON.
  const MallocText ownedAnswer(answer);
  const char* response = ownedAnswer != nullptr ? ownedAnswer.get() : "";
  logAfterAnswer(TRACE_LEVEL,
                 [&] { return message("invoked  ksqd cct request: json_output=", response, " ret Val:", result); });

  unsigned long jobId = 0;
  try {
    parseRequestResponse(response, jobId);
  } catch (const std::bad_alloc&) {
    throw KSServiceException(DAEMON_REQUEST_FAILED_CODE,
                             "No memory to read the request daemon's answer; " + mayHaveStarted(*request));
  }
  request->jobId = jobId;
  logAfterAnswer(PROGRESS_LEVEL, [&] { return message("BackupServiceImpl: Backup JobID: ", jobId); });
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
  return parseRequestResponse(response.c_str(), jobId);
}

int BackupServiceImpl::parseRequestResponse(const char* response, unsigned long& jobId) const {
  json_error_t error;
  const JsonReference answer(json_loads(response, 0, &error));
  if (answer == nullptr && json_error_code(&error) == json_error_out_of_memory) throw std::bad_alloc();
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
