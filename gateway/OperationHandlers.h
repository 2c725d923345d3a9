// The handlers that one gateway operation owns. They are deleted in the order
// they were asked for, and then the factory singleton is destroyed, whichever
// way the operation ends.
#ifndef KSCDP_GATEWAY_OPERATIONHANDLERS_H_
#define KSCDP_GATEWAY_OPERATIONHANDLERS_H_

#include <array>
#include <cstddef>

#include "services/KSServiceFactory.h"
#include "services/KSUServiceImpl.h"

class OperationHandlers {
 public:
  OperationHandlers() : m_factory(KSServiceFactory::getInstance()) {}
  ~OperationHandlers() {
    for (size_t i = 0; i < m_count; ++i) delete m_handlers[i];
    KSServiceFactory::destroyInstance();
  }
  OperationHandlers(const OperationHandlers&) = delete;
  OperationHandlers& operator=(const OperationHandlers&) = delete;

  // A new handler of `type`, owned by this object; null for an unknown type.
  KSUServiceImpl* make(KSServiceType type) {
    KSUServiceImpl* handler = m_factory->getServiceDataInstance(type);
    m_handlers.at(m_count++) = handler;
    return handler;
  }

 private:
  KSServiceFactory* m_factory;
  std::array<KSUServiceImpl*, 2> m_handlers{};  // no operation needs more than two
  size_t m_count = 0;
};

#endif  // KSCDP_GATEWAY_OPERATIONHANDLERS_H_
