#include "services/JobServiceImpl.h"

#include <jansson.h>
#include <time.h>

#include <boost/make_shared.hpp>
#include <cstdint>
#include <sstream>

#include "platform/ksu_log.h"
#include "rest/KeepstoneRestApi.h"
#include "rest/ServiceCodes.h"
#include "services/JsonReference.h"
#include "services/KSServiceException.h"
#include "services/ServiceData.h"

namespace {

// Built at load time, in this order.
const std::string API_PREFIX = keepstone_rest::kApiPrefix;
const std::string JOBS_GET_API = API_PREFIX + keepstone_rest::kJobsResource;

const char HANDLE_REQUEST_LOG_NAME[] = "JobServiceImpl::handleRequest";

// The server answers 404 until it knows the job; each 404 is followed by one
// pause, and polling gives up after this many of them.
const int32_t JOB_NOT_KNOWN_YET = 404;
const int MAX_NOT_KNOWN_ANSWERS = 5;
const timespec PAUSE_AFTER_NOT_KNOWN = {3, 0};

const std::string PARSE_FAILURE = "Could not parse Jobs API response message.";
const std::string MISSING_ATTRIBUTE = "Could not parse Jobs API response message, missing attribute: ";

// The member `name` of `parent`, or null when absent or when `parent` is no
// object. Borrowed from the document that holds `parent`.
json_t* member(json_t* parent, const char* name) {
  return json_is_object(parent) ? json_object_get(parent, name) : nullptr;
}

}  // namespace

JobServiceImpl::JobServiceImpl() : m_curlWrapper(boost::make_shared<KSCurlWrapper>()) {}

JobServiceImpl::~JobServiceImpl() {}

int JobServiceImpl::handleRequest(ServiceData* data) {
  JobServiceData* job = dynamic_cast<JobServiceData*>(data);
  if (job == nullptr) {
    throw KSServiceException(INVALID_REQUEST_CODE, "Invalid shared common object is passed to worker service");
  }

  KSCurlRequestParams request;
  KSCurlResponse response{};
  try {
    request.uri = JOBS_GET_API + std::to_string(job->jobId);
    ksu_logmsg_str(PROGRESS_LEVEL, HANDLE_REQUEST_LOG_NAME, "Invoking jobs URI: " + request.uri);
    request.requestType = GET_REQUEST;
    int notKnownAnswers = 0;
    for (;;) {
      m_curlWrapper->makeRequest(request, response);
      if (response.statusCode != JOB_NOT_KNOWN_YET) break;
      ++notKnownAnswers;
      nanosleep(&PAUSE_AFTER_NOT_KNOWN, nullptr);
      if (notKnownAnswers == MAX_NOT_KNOWN_ANSWERS) break;
    }
  } catch (const KSCurlWrapperException& e) {
    std::ostringstream message;
    message << "KSCurl Exception occured, error code: " << e.m_code << "\nException message: " << e.m_message;
    ksu_logmsg_str(FAILURE_LEVEL, HANDLE_REQUEST_LOG_NAME, message.str());
    throw KSServiceException(e.m_code, e.m_message);
  }

  // The last answer is parsed whatever its status; a job without "status"
  // reports 0, the record's own starting value.
  std::string state;
  int status = 0;
  parseResponse(response.message, state, status);
  job->jobState = state;
  job->jobStatus = status;
  return forward(data);
}

int JobServiceImpl::parseResponse(const std::string& body, std::string& state, int& status) const {
  const JsonReference document(json_loads(body.c_str(), 0, nullptr));
  if (!document) throw KSServiceException(UNPARSABLE_ANSWER_CODE, PARSE_FAILURE);
  json_t* jobData = member(document.get(), "data");
  if (jobData == nullptr) throw KSServiceException(UNPARSABLE_ANSWER_CODE, MISSING_ATTRIBUTE + "data");
  json_t* attributes = member(jobData, "attributes");
  if (attributes == nullptr) throw KSServiceException(UNPARSABLE_ANSWER_CODE, MISSING_ATTRIBUTE + "attributes");
  // A state that is not a string has no text to hand back: it counts as missing.
  json_t* jobState = member(attributes, "state");
  if (!json_is_string(jobState)) throw KSServiceException(UNPARSABLE_ANSWER_CODE, MISSING_ATTRIBUTE + "jobstate");

  if (json_t* jobStatus = member(attributes, "status")) {
    // Keeps the low 32 bits: 2^32 + 1 becomes 1.
    status = static_cast<int32_t>(static_cast<uint32_t>(json_integer_value(jobStatus)));
  }
  state.assign(json_string_value(jobState), json_string_length(jobState));
  return 0;
}
