#include "platform/standin/http/curl_exchange.h"

#include <strings.h>

#include "platform/ksu_log.h"
#include "platform/standin/config/client_identity.h"
#include "platform/standin/config/url_credentials.h"
#include "platform/standin/http/certificate_request.h"

namespace standin {
namespace {

// libcurl keeps its own copy; an empty text clears the option.
void setBlob(CURL* easy, CURLoption option, const std::string& text) {
  curl_blob blob{const_cast<char*>(text.data()), text.size(), CURL_BLOB_COPY};
  curl_easy_setopt(easy, option, text.empty() ? nullptr : &blob);
}

// Whether the server ended a TLS connection after asking for a client
// certificate that the request had none of. A TLS 1.2 server refuses in the
// handshake; a TLS 1.3 server after it, so the client sees the connection
// end when it sends or reads. A server that closed an idle connection asked
// for nothing in this request.
bool refusedForCertificate(CURLcode result, const std::string& url) {
  return strncasecmp(url.c_str(), "https:", 6) == 0 && certificateRequested() &&
         (result == CURLE_SEND_ERROR || result == CURLE_RECV_ERROR || result == CURLE_SSL_CONNECT_ERROR);
}

}  // namespace

CurlExchange::CurlExchange() : m_error{} {}

CurlExchange::~CurlExchange() = default;

bool CurlExchange::addHeader(const std::string& line) {
  curl_slist* extended = curl_slist_append(m_headers.get(), line.c_str());
  if (extended == nullptr) return false;
  m_headers.release();  // `extended` is the same list, grown
  m_headers.reset(extended);
  return true;
}

CURLcode CurlExchange::perform(const char* function, const std::string& url, const std::string* postBody,
                               const CurlSettings& settings) {
  const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  const CURLcode result = performOnce(function, url, postBody, settings);
  m_took = std::chrono::steady_clock::now() - started;
  return result;
}

CURLcode CurlExchange::performOnce(const char* function, const std::string& url, const std::string* postBody,
                                   const CurlSettings& settings) {
  m_answered = false;
  m_connected = false;
  m_responseCode = 0;
  m_body.text.clear();
  m_body.tooLarge = false;
  m_errorText.clear();
  m_error[0] = '\0';
  if (m_easy == nullptr) m_easy.reset(takeEasyHandle());

  CURLcode result = CURLE_FAILED_INIT;
  ClientIdentity identity;
  const bool presentsCertificate = !settings.certFile.empty() || !settings.keyFile.empty();
  if (presentsCertificate &&
      !loadClientIdentity(settings.certFile, settings.keyFile, "cert_file", "key_file", identity, m_errorText)) {
    if (function != nullptr) {
      ksu_logmsg_str(
          FAILURE_LEVEL, function,
          std::string(postBody != nullptr ? "POST " : "GET ") + urlWithoutPassword(url) + ": " + m_errorText);
    }
    return CURLE_SSL_CERTPROBLEM;
  }
  if (m_easy != nullptr) {
    CURL* easy = m_easy.get();
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, m_error);
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, settings.timeoutSeconds);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, settings.connectTimeoutSeconds);
    // A CA file is the only trust: libcurl's CA directory would add every CA
    // the system trusts.
    curl_easy_setopt(easy, CURLOPT_CAINFO, settings.caFile.empty() ? builtInCaBundle() : settings.caFile.c_str());
    curl_easy_setopt(easy, CURLOPT_CAPATH, settings.caFile.empty() ? builtInCaPath() : nullptr);
    setBlob(easy, CURLOPT_SSLCERT_BLOB, identity.certificate);
    setBlob(easy, CURLOPT_SSLKEY_BLOB, identity.key);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, m_headers.get());
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &m_body);
    if (postBody != nullptr) {
      m_postBody = *postBody;
      curl_easy_setopt(easy, CURLOPT_POST, 1L);
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, m_postBody.data());
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_postBody.size()));
      curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
    } else {
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
      curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 0L);
    }
    watchCertificateRequests(easy, !presentsCertificate);
    result = performTransfer(easy);
    curl_off_t connectMicroseconds = 0;
    m_connected =
        curl_easy_getinfo(easy, CURLINFO_CONNECT_TIME_T, &connectMicroseconds) == CURLE_OK && connectMicroseconds > 0;
  }

  if (result == CURLE_OK) {
    curl_easy_getinfo(m_easy.get(), CURLINFO_RESPONSE_CODE, &m_responseCode);
    m_answered = true;
    return result;
  }
  if (m_body.tooLarge) {
    curl_easy_getinfo(m_easy.get(), CURLINFO_RESPONSE_CODE, &m_responseCode);
    m_errorText = "the answer is larger than " + std::to_string(kLargestAnswer / 1024) +
                  " KiB, more than this interface ever sends; read no further";
  } else {
    m_errorText = m_error[0] != '\0' ? m_error : curl_easy_strerror(result);
    if (!presentsCertificate && refusedForCertificate(result, url)) {
      m_errorText +=
          " (the server ended the TLS connection: if it requires a client certificate, set cert_file and "
          "key_file)";
    }
  }
  m_body.text.clear();
  if (function != nullptr) {
    ksu_logmsg_str(FAILURE_LEVEL, function,
                   std::string(postBody != nullptr ? "POST " : "GET ") + urlWithoutPassword(url) +
                       " failed: " + m_errorText + " (libcurl error " + std::to_string(result) + ")");
  }
  return result;
}

bool CurlExchange::header(const char* name, std::string& value) const {
  curl_header* found = nullptr;
  if (!m_answered || curl_easy_header(m_easy.get(), name, 0, CURLH_HEADER, -1, &found) != CURLHE_OK) return false;
  value = found->value;
  return true;
}

}  // namespace standin
