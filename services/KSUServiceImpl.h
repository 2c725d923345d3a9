// Base of every concrete handler: holds the successor, which it never owns.
#ifndef KSCDP_SERVICES_KSUSERVICEIMPL_H_
#define KSCDP_SERVICES_KSUSERVICEIMPL_H_

#include "services/ServiceInterface.h"

class KSUServiceImpl : public virtual ServiceInterface {
 public:
  KSUServiceImpl() = default;
  ~KSUServiceImpl() override;
  KSUServiceImpl(const KSUServiceImpl&) = delete;
  KSUServiceImpl& operator=(const KSUServiceImpl&) = delete;

  ServiceInterface* setNext(ServiceInterface* next) override;
  int handleRequest(ServiceData* data) override = 0;

 protected:
  // The forwarding rule: the successor's result, or 0 at the end of a chain.
  int forward(ServiceData* data);

  ServiceInterface* m_next = nullptr;  // not owned
};

#endif  // KSCDP_SERVICES_KSUSERVICEIMPL_H_
