// One HTTP exchange of a stand-in over a pooled libcurl handle: the request
// path that the HTTP client and the request-daemon client share.
#ifndef KSCDP_PLATFORM_STANDIN_HTTP_CURL_EXCHANGE_H_
#define KSCDP_PLATFORM_STANDIN_HTTP_CURL_EXCHANGE_H_

#include <curl/curl.h>

#include <chrono>
#include <memory>
#include <string>

#include "platform/standin/http/curl_support.h"

namespace standin {

struct CurlSettings {
  long timeoutSeconds = 30;        // for the whole exchange
  long connectTimeoutSeconds = 0;  // for the connection alone; 0: libcurl's own limit
  std::string caFile;              // the only CAs trusted; empty: the system's
  std::string certFile;            // the client's certificate and key, presented
  std::string keyFile;             //   over https; both empty: none
};

// Owns, while it lives, an easy handle and everything the handle points at
// (header list, request body, error buffer, answer body); the handle goes
// back to the pool, reset, before any of them is released. One thread at a
// time.
class CurlExchange {
 public:
  CurlExchange();
  ~CurlExchange();
  CurlExchange(const CurlExchange&) = delete;
  CurlExchange& operator=(const CurlExchange&) = delete;

  // Adds a "Name: value" request line (libcurl's forms: "Name:" drops a
  // header libcurl would send, "Name;" sends it empty). False when memory ran
  // out.
  bool addHeader(const std::string& line);

  // Performs the exchange once: a POST of `*postBody` when given, else a
  // GET, over http or https only, with the peer and host verified and the
  // client certificate of `settings` presented. A client certificate that
  // cannot be used (see loadClientIdentity) fails the exchange before
  // anything is sent, with CURLE_SSL_CERTPROBLEM. A POST is
  // sent on a connection of its own, so that libcurl never sends it a second
  // time when a kept-alive connection turns out dead; a GET that finds its
  // kept-alive connection closed by the server goes again, once, on a new
  // connection. An answer larger than
  // kLargestAnswer is a failure, read no further. CURLE_OK when an answer
  // came; otherwise errorText() says why, and, unless `function` is
  // null, one level-16 log line under `function` names the method, the URL
  // (without its password) and the error.
  CURLcode perform(const char* function, const std::string& url, const std::string* postBody,
                   const CurlSettings& settings);

  // How long the last exchange took, from the call of perform() to its return.
  std::chrono::steady_clock::duration took() const { return m_took; }

  // Why the last exchange failed, as libcurl words it.
  std::string errorText() const { return m_errorText; }
  // Whether the last exchange got as far as a connection.
  bool connected() const { return m_connected; }

  // The last answer's status code and body (0 and empty without an answer).
  // An answer cut off for passing kLargestAnswer keeps its status code, with
  // an empty body.
  long responseCode() const { return m_responseCode; }
  // Whether the last answer was cut off for passing kLargestAnswer.
  bool answerTooLarge() const { return m_body.tooLarge; }
  std::string& body() { return m_body.text; }

  // The value of the last answer's header `name` (any case); false when it
  // has none or no answer came.
  bool header(const char* name, std::string& value) const;

 private:
  CURLcode performOnce(const char* function, const std::string& url, const std::string* postBody,
                       const CurlSettings& settings);

  struct HandleRelease {
    void operator()(CURL* easy) const { giveBackEasyHandle(easy); }
  };

  HeaderList m_headers;
  std::string m_postBody;
  char m_error[CURL_ERROR_SIZE];
  AnswerBody m_body;
  long m_responseCode = 0;
  bool m_answered = false;
  std::string m_errorText;
  bool m_connected = false;
  std::chrono::steady_clock::duration m_took{0};
  // Last, so that it is given back before the members above that it points at.
  std::unique_ptr<CURL, HandleRelease> m_easy;
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_HTTP_CURL_EXCHANGE_H_
