// The chain-of-responsibility interface of the service layer.
//
// Every handler does its own work on the record and then forwards it: when a
// successor is set it returns the successor's handleRequest result, otherwise
// 0. Failures are KSServiceException; a handler catches nothing that comes
// back from its successor.
#ifndef KSCDP_SERVICES_SERVICEINTERFACE_H_
#define KSCDP_SERVICES_SERVICEINTERFACE_H_

class ServiceData;

class ServiceInterface {
 public:
  virtual ~ServiceInterface() {}
  // Makes `next` the successor (null ends the chain) and returns `next`.
  virtual ServiceInterface* setNext(ServiceInterface* next) = 0;
  // `data` is borrowed for the call.
  virtual int handleRequest(ServiceData* data) = 0;
};

#endif  // KSCDP_SERVICES_SERVICEINTERFACE_H_
