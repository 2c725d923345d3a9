#include "url_parts.h"

#include <curl/curl.h>

#include <cstdlib>
#include <memory>

namespace doctor {
namespace {

struct UrlRelease {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

// A part of `url`, or empty when it has none.
std::string part(CURLU* url, CURLUPart which, unsigned flags) {
  char* text = nullptr;
  if (curl_url_get(url, which, &text, flags) != CURLUE_OK || text == nullptr) return std::string();
  std::string copy = text;
  curl_free(text);
  return copy;
}

}  // namespace

bool splitUrl(const std::string& url, UrlParts& parts) {
  std::unique_ptr<CURLU, UrlRelease> handle(curl_url());
  if (handle == nullptr || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return false;
  const std::string scheme = part(handle.get(), CURLUPART_SCHEME, 0);
  std::string host = part(handle.get(), CURLUPART_HOST, 0);
  const std::string port = part(handle.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
  if ((scheme != "http" && scheme != "https") || host.empty() || port.empty()) return false;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  parts.host = host;
  parts.port = std::atoi(port.c_str());
  return true;
}

}  // namespace doctor
