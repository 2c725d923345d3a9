// The REST client: one request at a time against the master server named in
// the host's master configuration, over the product's HTTP client.
#ifndef KSCDP_REST_CCTCURLWRAPPER_H_
#define KSCDP_REST_CCTCURLWRAPPER_H_

#include <cstdint>
#include <exception>
#include <string>

// The REST client's exception. m_code is -1 when the thrower gives none.
class KSCurlWrapperException : public std::exception {
 public:
  KSCurlWrapperException(int code, const std::string& message);
  explicit KSCurlWrapperException(const std::string& message);
  ~KSCurlWrapperException() override;
  const char* what() const noexcept override;

  int32_t m_code;
  std::string m_message;
};

// The kinds of request in KSCurlRequestParams::requestType.
const int32_t GET_REQUEST = 0;  // no body
// With the payload as its body. No caller in this system sends one; the
// client supports it as the product's REST client does.
const int32_t PAYLOAD_REQUEST = 1;

// One request; owned by the caller.
struct KSCurlRequestParams {
  std::string uri;      // path relative to the server, no leading slash
  std::string payload;  // body of a payload request
  int32_t requestType;  // GET_REQUEST or PAYLOAD_REQUEST; the caller must set it
};

// One answer; owned by the caller.
struct KSCurlResponse {
  int32_t statusCode;   // HTTP status as the client reports it (0: no answer)
  std::string message;  // body
  // The "X-Keepstone-Warning" header. Filled for every answer as the REST
  // client's contract requires, though no caller in this system reads it.
  std::string warning;
};

class KSCurlWrapper {
 public:
  // Reads the master server's name; throws KSCurlWrapperException when the
  // master configuration cannot be read or names no server.
  KSCurlWrapper();

  void readAndInitializeConfig();

  // Sends one request to the master server and fills `response`. Returns 0,
  // the header lookup's own failure code, or 20 for an unsupported
  // requestType (response untouched). HTTP error statuses are not failures.
  int makeRequest(const KSCurlRequestParams& params, KSCurlResponse& response);

 private:
  std::string m_masterServerName;
};

#endif  // KSCDP_REST_CCTCURLWRAPPER_H_
