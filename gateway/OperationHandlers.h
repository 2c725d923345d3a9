// The handlers that one gateway operation owns. They are deleted in the order
// they were asked for, and then the factory singleton is destroyed, whichever
// way the operation ends.
#ifndef KSCDP_GATEWAY_OPERATIONHANDLERS_H_
#define KSCDP_GATEWAY_OPERATIONHANDLERS_H_

#include <array>
#include <cstddef>
#include <stdexcept>

#include "services/KSServiceFactory.h"
#include "services/KSUServiceImpl.h"

class OperationHandlers {
 public:
  OperationHandlers() { KSServiceFactory::getInstance(); }
  ~OperationHandlers() {
    for (size_t i = 0; i < m_count; ++i) delete m_handlers[i];
    KSServiceFactory::destroyInstance();
  }
  OperationHandlers(const OperationHandlers&) = delete;
  OperationHandlers& operator=(const OperationHandlers&) = delete;

  // A new handler of `type`, owned by this object; null for an unknown type.
  // The factory is asked afresh each time: an alert raised inside the
  // operation destroys the singleton when it ends. Throws, having made
  // nothing, when this object already holds as many handlers as it can.
  KSUServiceImpl* make(KSServiceType type) {
    if (m_count == m_handlers.size()) throw std::length_error("a gateway operation asked for too many handlers");
    KSUServiceImpl* handler = KSServiceFactory::getInstance()->getServiceDataInstance(type);
    m_handlers[m_count++] = handler;
    return handler;
  }

 private:
  std::array<KSUServiceImpl*, 2> m_handlers{};  // no operation needs more than two
  size_t m_count = 0;
};

#endif  // KSCDP_GATEWAY_OPERATIONHANDLERS_H_
