// HTTP client library of the product.
#ifndef KSCDP_PLATFORM_KS_CURL_CLIENT_H_
#define KSCDP_PLATFORM_KS_CURL_CLIENT_H_

#include <string>

enum cert_type {
  CERT_TYPE_NONE = 0,
  CERT_TYPE_PEM = 1,
};

enum KSCurlSessionType {
  KS_CURL_SESSION_NONE = 0,
  KS_CURL_SESSION_SHARED = 1,
};

// Supplies access tokens to a client; none is used by this system.
class TokenManager_Base {
 public:
  virtual ~TokenManager_Base() = default;
};

// One client per exchange with a REST server at host:port. After get() or
// post() returns, m_responseCode and m_responseBody describe the answer
// (code 0 and an empty body when nothing answered).
class KSClientCURL {
 public:
  KSClientCURL(const std::string& host, int port, cert_type certType, KSCurlSessionType sessionType,
               TokenManager_Base* tokenManager, const std::string& clientId, bool verifyPeer, bool useProxy,
               bool useCookies, const std::string& certFile, const std::string& keyFile, const std::string& keyPassword,
               const std::string& caPath, const std::string& proxyUrl, const std::string& userAgent, bool verbose,
               const bool& cancelFlag, const std::string& interfaceName, int retryCount);
  virtual ~KSClientCURL();
  KSClientCURL(const KSClientCURL&) = delete;
  KSClientCURL& operator=(const KSClientCURL&) = delete;

  // Media type sent as the Accept header of later requests.
  void setupAcceptCurlOption(std::string mediaType);

  // GET of `path`, relative to the server, without a leading slash.
  virtual int get(const std::string& path);

  // POST of `body` as application/json to `path`.
  virtual int post(const std::string& path, const std::string& body);

  // Looks `name` up, case-insensitively, in the headers of the last answer.
  // 0 and `value` set when found; 227 and `value` untouched otherwise.
  int getHttpHeaderField(const std::string& name, std::string& value);

  long m_responseCode;
  std::string m_responseBody;

  struct State;

 private:
  State* m_state;  // owned; the implementation's own
};

#endif  // KSCDP_PLATFORM_KS_CURL_CLIENT_H_
