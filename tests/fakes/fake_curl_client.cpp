#include "fake_curl_client.h"

#include <strings.h>

#include <sstream>

struct KSClientCURL::State {
  size_t index;                            // into fake::curl.clients
  std::optional<fake::CurlAnswer> answer;  // the last one taken, if any

  int take(KSClientCURL& client, const std::string& request) {
    fake::Curl& curl = fake::curl;
    curl.clients[index].requests.push_back(request);
    if (curl.requestThrows) std::rethrow_exception(curl.requestThrows);
    answer.reset();
    if (!curl.answers.empty()) {
      answer = curl.answers.front();
      curl.answers.pop_front();
    }
    client.m_responseCode = answer ? answer->code : 0;
    client.m_responseBody = answer ? answer->body : "";
    return 0;
  }
};

KSClientCURL::KSClientCURL(const std::string& host, int port, cert_type certType, KSCurlSessionType sessionType,
                           TokenManager_Base* tokenManager, const std::string& clientId, bool verifyPeer, bool useProxy,
                           bool useCookies, const std::string& certFile, const std::string& keyFile,
                           const std::string& keyPassword, const std::string& caPath, const std::string& proxyUrl,
                           const std::string& userAgent, bool verbose, const bool& cancelFlag,
                           const std::string& interfaceName, int retryCount)
    : m_responseCode(0), m_state(nullptr) {
  if (fake::curl.constructorThrows) std::rethrow_exception(fake::curl.constructorThrows);
  std::ostringstream arguments;
  arguments << host << '|' << port << '|' << certType << '|' << sessionType << '|' << (tokenManager != nullptr) << '|'
            << clientId << '|' << verifyPeer << '|' << useProxy << '|' << useCookies << '|' << certFile << '|'
            << keyFile << '|' << keyPassword << '|' << caPath << '|' << proxyUrl << '|' << userAgent << '|' << verbose
            << '|' << cancelFlag << '|' << interfaceName << '|' << retryCount;
  fake::curl.clients.push_back({arguments.str(), {}, {}});
  m_state = new State{fake::curl.clients.size() - 1, std::nullopt};
  ++fake::curl.live;
}

KSClientCURL::~KSClientCURL() {
  delete m_state;
  --fake::curl.live;
}

void KSClientCURL::setupAcceptCurlOption(std::string mediaType) {
  fake::curl.clients[m_state->index].acceptMediaTypes.push_back(mediaType);
}

int KSClientCURL::get(const std::string& path) { return m_state->take(*this, "get " + path); }

int KSClientCURL::post(const std::string& path, const std::string& body) {
  return m_state->take(*this, "post " + path + " " + body);
}

int KSClientCURL::getHttpHeaderField(const std::string& name, std::string& value) {
  const std::optional<fake::CurlAnswer>& answer = m_state->answer;
  if (!answer) return 227;
  if (answer->headerLookupResult) return *answer->headerLookupResult;
  for (const auto& header : answer->headers) {
    if (strcasecmp(header.first.c_str(), name.c_str()) == 0) {
      value = header.second;
      return 0;
    }
  }
  return 227;
}
