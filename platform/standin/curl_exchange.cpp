#include "curl_exchange.h"

#include "platform/ksu_log.h"

namespace standin {

CurlExchange::CurlExchange() : error_{} {}

CurlExchange::~CurlExchange() = default;

bool CurlExchange::addHeader(const std::string& line) {
  curl_slist* extended = curl_slist_append(headers_.get(), line.c_str());
  if (extended == nullptr) return false;
  headers_.release();  // `extended` is the same list, grown
  headers_.reset(extended);
  return true;
}

CURLcode CurlExchange::perform(const char* function, const std::string& url, const std::string* postBody,
                               const CurlSettings& settings) {
  answered_ = false;
  responseCode_ = 0;
  body_.clear();
  error_[0] = '\0';
  if (easy_ == nullptr) easy_.reset(takeEasyHandle());

  CURLcode result = CURLE_FAILED_INIT;
  if (easy_ != nullptr) {
    CURL* easy = easy_.get();
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, error_);
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, settings.timeoutSeconds);
    curl_easy_setopt(easy, CURLOPT_CAINFO, settings.caFile.empty() ? nullptr : settings.caFile.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers_.get());
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body_);
    if (postBody != nullptr) {
      postBody_ = *postBody;
      curl_easy_setopt(easy, CURLOPT_POST, 1L);
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, postBody_.data());
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(postBody_.size()));
      curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
    } else {
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
      curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 0L);
    }
    result = curl_easy_perform(easy);
  }

  if (result == CURLE_OK) {
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &responseCode_);
    answered_ = true;
    return result;
  }
  body_.clear();
  const std::string reason = error_[0] != '\0' ? error_ : curl_easy_strerror(result);
  ksu_logmsg_str(16, function,
                 std::string(postBody != nullptr ? "POST " : "GET ") + url + " failed: " + reason +
                     " (libcurl error " + std::to_string(result) + ")");
  return result;
}

bool CurlExchange::header(const char* name, std::string& value) const {
  curl_header* found = nullptr;
  if (!answered_ || curl_easy_header(easy_.get(), name, 0, CURLH_HEADER, -1, &found) != CURLHE_OK) return false;
  value = found->value;
  return true;
}

}  // namespace standin
