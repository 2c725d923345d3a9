// Request records that travel along a chain of service handlers.
//
// The gateway creates every record (boost::make_shared, default constructor),
// holds it for one request and lends it to the chain as a ServiceData*.
// Handlers recover the concrete kind with dynamic_cast, never take ownership
// and keep no pointer to a record after handleRequest returns.
#ifndef KSCDP_SERVICES_SERVICEDATA_H_
#define KSCDP_SERVICES_SERVICEDATA_H_

#include <cstdint>
#include <map>
#include <string>

class ServiceData {
 public:
  ServiceData() = default;
  virtual ~ServiceData();
  ServiceData(const ServiceData&) = delete;
  ServiceData& operator=(const ServiceData&) = delete;
};

class AlertServiceData : public ServiceData {
 public:
  ~AlertServiceData() override;

  // Adds key -> value unless key is present already; the first value stays.
  void insertAttribute(const std::string& key, const std::string& value);

  int64_t severity = 0;  // an AlertSeverity value
  int64_t priority = 0;  // an AlertPriority value
  std::string messageKey;
  std::map<std::string, std::string> attributes;
};

class EvictionServiceData : public ServiceData {
 public:
  ~EvictionServiceData() override;

  std::string vmId;
  std::string policyName;
  uint64_t jobId = 0;  // written by the backup handler
  int32_t evictionType = 0;
  std::string masterServerName;
};

class JobServiceData : public ServiceData {
 public:
  ~JobServiceData() override;

  uint64_t jobId = 0;
  int32_t jobStatus = 0;  // written by the job handler; the gateway judges a job by its state alone
  std::string jobState;   // written by the job handler
};

#endif  // KSCDP_SERVICES_SERVICEDATA_H_
