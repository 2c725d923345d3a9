#include "rest/CCTCurlWrapper.h"

#include <boost/scoped_ptr.hpp>
#include <string>

#include "platform/ks_curl_client.h"
#include "platform/ksu_log.h"
#include "rest/KeepstoneRestApi.h"
#include "rest/MasterConfiguration.h"
#include "rest/ServiceCodes.h"

namespace {

// Built at load time, in this order. KS_MEDIA_TYPE_VERSION is the Accept
// media type of every request.
const std::string MAX_VERSION = keepstone_rest::kMaxVersion;
const std::string KS_MEDIA_TYPE_JSON = keepstone_rest::kMediaType;
const std::string KS_MEDIA_TYPE_VERSION = KS_MEDIA_TYPE_JSON + ";version=" + MAX_VERSION;

const char WARNING_HEADER[] = "X-Keepstone-Warning";
const char MAKE_REQUEST_LOG_NAME[] = "KSCurlWrapper::makeRequest";

const int UNSUPPORTED_REQUEST_RESULT = INVALID_REQUEST_CODE;
// The header lookup's "no such header", which is no failure of a request.
const int HEADER_ABSENT = 227;

}  // namespace

KSCurlWrapperException::KSCurlWrapperException(int code, const std::string& message)
    : m_code(code), m_message(message) {}

KSCurlWrapperException::KSCurlWrapperException(const std::string& message) : m_code(-1), m_message(message) {}

KSCurlWrapperException::~KSCurlWrapperException() {}

const char* KSCurlWrapperException::what() const noexcept { return m_message.c_str(); }

KSCurlWrapper::KSCurlWrapper() { readAndInitializeConfig(); }

void KSCurlWrapper::readAndInitializeConfig() {
  const MasterConfiguration config = readMasterConfiguration();
  if (config.readResult != 0) {
    throw KSCurlWrapperException(config.readResult, "Failed to read Keepstone configuration file");
  }
  if (!config.hasMasterServer) {
    throw KSCurlWrapperException("Failed to read master server from Keepstone configuration file");
  }
  m_masterServerName = config.masterServer;
}

int KSCurlWrapper::makeRequest(const KSCurlRequestParams& params, KSCurlResponse& response) {
  // The client library reads the flag through its reference while the client lives.
  const bool cancelRequest = false;
  const std::string none;
  // A fresh client per request, gone on every way out of this function.
  boost::scoped_ptr<KSClientCURL> client(
      new KSClientCURL(m_masterServerName, keepstone_rest::kPort, CERT_TYPE_PEM, KS_CURL_SESSION_SHARED, nullptr, none,
                       true, false, false, none, none, none, none, none, none, false, cancelRequest, none, 0));
  client->setupAcceptCurlOption(KS_MEDIA_TYPE_VERSION);

  switch (params.requestType) {
    case GET_REQUEST: client->get(params.uri); break;
    case PAYLOAD_REQUEST: client->post(params.uri, params.payload); break;
    default:
      ksu_logmsg_str(FAILURE_LEVEL, MAKE_REQUEST_LOG_NAME, "Unsupported request type specified.");
      return UNSUPPORTED_REQUEST_RESULT;
  }

  response.statusCode = static_cast<int32_t>(client->m_responseCode);
  response.message = client->m_responseBody;
  int result = client->getHttpHeaderField(WARNING_HEADER, response.warning);
  if (result == HEADER_ABSENT) result = 0;

  ksu_logmsg_str(PROGRESS_LEVEL, MAKE_REQUEST_LOG_NAME,
                 "Curl request status: " + std::to_string(response.statusCode) + ", message: " + response.message);
  return result;
}
