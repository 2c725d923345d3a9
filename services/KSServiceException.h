// The service layer's one exception: a code for the engine and a message for
// the log. Codes: 20 request that cannot be worked on, 25 failed request-daemon
// call, 130 answer that cannot be parsed, 8775 unreadable master
// configuration; the REST client's own codes pass through unchanged.
#ifndef KSCDP_SERVICES_KSSERVICEEXCEPTION_H_
#define KSCDP_SERVICES_KSSERVICEEXCEPTION_H_

#include <exception>
#include <string>

class KSServiceException : public std::exception {
 public:
  KSServiceException(int code, const std::string& message);
  ~KSServiceException() override;
  // The message; valid as long as the exception object.
  const char* what() const noexcept override;

  int m_code;
  std::string m_message;
};

#endif  // KSCDP_SERVICES_KSSERVICEEXCEPTION_H_
