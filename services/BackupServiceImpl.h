// The handler that evicts one virtual machine: it asks the request daemon of
// the record's master server for a manual backup under the record's policy
// and stores the started job's id in the record.
#ifndef KSCDP_SERVICES_BACKUPSERVICEIMPL_H_
#define KSCDP_SERVICES_BACKUPSERVICEIMPL_H_

#include <boost/shared_ptr.hpp>
#include <string>

#include "rest/CCTCurlWrapper.h"
#include "services/KSUServiceImpl.h"

class BackupServiceImpl : public virtual KSUServiceImpl {
 public:
  // Makes the REST client, which reads the master configuration: throws
  // KSCurlWrapperException when that cannot be read.
  BackupServiceImpl();
  ~BackupServiceImpl() override;

  // Takes an EvictionServiceData (anything else is KSServiceException 20),
  // submits the manual backup request and writes the job id into the record.
  // A failed daemon call is KSServiceException 25, an answer without an
  // integer "jobid" 130; the record's jobId is then unchanged. Once the
  // daemon has answered nothing else fails: a log line that cannot be made
  // is left out. When the daemon accepted the request but its answer cannot
  // be read (the daemon client's failure codes 200 to 299, or no memory to
  // parse it) the code-25 message says that a backup may have started for
  // the record's vmId.
  // Memory that runs out before the request goes out throws std::bad_alloc.
  int handleRequest(ServiceData* data) override;

  // The request text {"policy": "<policyName>"}. An empty name is
  // KSServiceException 20. A name that is not valid UTF-8 gives "{}".
  std::string createRequestPayload(const std::string& policyName) const;

  // Reads the integer "jobid" of the daemon's answer into `jobId` and returns
  // 0; otherwise throws KSServiceException 130. `jobId` is set to 0 when
  // "jobid" is present but not an integer, and left alone when the answer is
  // not JSON or has no "jobid".
  // Throws std::bad_alloc when memory ran out reading the answer.
  int parseRequestResponse(const std::string& response, unsigned long& jobId) const;
  int parseRequestResponse(const char* response, unsigned long& jobId) const;

 private:
  // Made with the handler, so that a handler exists only when the master
  // configuration names a master server; handleRequest makes no REST request.
  boost::shared_ptr<KSCurlWrapper> m_curlWrapper;
};

#endif  // KSCDP_SERVICES_BACKUPSERVICEIMPL_H_
