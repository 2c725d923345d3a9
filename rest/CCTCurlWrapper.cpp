#include "rest/CCTCurlWrapper.h"

#include "platform/ks_master_config.h"

namespace {

// Built at load time, in this order. KS_MEDIA_TYPE_VERSION is the Accept
// media type of every request.
const std::string MAX_VERSION = "6.0";
const std::string KS_MEDIA_TYPE_JSON = "application/vnd.keepstone+json";
const std::string KS_MEDIA_TYPE_VERSION = KS_MEDIA_TYPE_JSON + ";version=" + MAX_VERSION;

}  // namespace

KSCurlWrapperException::KSCurlWrapperException(int code, const std::string& message)
    : m_code(code), m_message(message) {}

KSCurlWrapperException::KSCurlWrapperException(const std::string& message)
    : m_code(-1), m_message(message) {}

KSCurlWrapperException::~KSCurlWrapperException() {}

const char* KSCurlWrapperException::what() const noexcept { return m_message.c_str(); }

KSCurlWrapper::KSCurlWrapper() { readAndInitializeConfig(); }

void KSCurlWrapper::readAndInitializeConfig() {
  const int result = KS_read_master_config();
  if (result != 0) {
    throw KSCurlWrapperException(result, "Failed to read Keepstone configuration file");
  }
  const ks_master_config* config = get_master_config_ptr();
  if (config == nullptr || config->server_list == nullptr || config->server_list[0] == nullptr) {
    throw KSCurlWrapperException(-1, "Failed to read master server from Keepstone configuration file");
  }
  m_masterServerName = config->server_list[0];
}
