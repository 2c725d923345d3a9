#include "services/KSServiceException.h"

KSServiceException::KSServiceException(int code, const std::string& message) : m_code(code), m_message(message) {}

KSServiceException::~KSServiceException() {}

const char* KSServiceException::what() const noexcept { return m_message.c_str(); }
