// The handler that finds out where one backup job stands: it asks the master
// server's REST jobs interface about the job of a JobServiceData record,
// retrying while the server does not know the job yet, and writes the job's
// state and status into the record before forwarding it.
#ifndef KSCDP_SERVICES_JOBSERVICEIMPL_H_
#define KSCDP_SERVICES_JOBSERVICEIMPL_H_

#include <boost/shared_ptr.hpp>
#include <string>

#include "rest/CCTCurlWrapper.h"
#include "services/KSUServiceImpl.h"

class JobServiceImpl : public virtual KSUServiceImpl {
 public:
  // Throws KSCurlWrapperException when the master configuration cannot be
  // read or names no master server.
  JobServiceImpl();
  ~JobServiceImpl() override;

  // Blocks for up to five requests and 15 s of pauses. Throws
  // KSServiceException: 20 for a record that is not a JobServiceData, the
  // REST client's code and message for its failures, 130 for an answer
  // without a job state. The record is written only on success.
  int handleRequest(ServiceData* data) override;

  // Reads "data" -> "attributes" -> "state" (a string) and the optional
  // "status" (an integer, narrowed to 32 bits; 0 when not an integer) out of
  // a jobs answer. Returns 0, or throws KSServiceException 130 and leaves
  // both results untouched. An absent "status" leaves `status` untouched.
  int parseResponse(const std::string& body, std::string& state, int& status) const;

 private:
  boost::shared_ptr<KSCurlWrapper> m_curlWrapper;
};

#endif  // KSCDP_SERVICES_JOBSERVICEIMPL_H_
