#include "gateway/KeepstoneServiceGateway.h"

#include <boost/make_shared.hpp>
#include <charconv>
#include <cstring>
#include <limits>
#include <sstream>

#include "gateway/OperationHandlers.h"
#include "platform/ksu_log.h"
#include "rest/MasterConfiguration.h"
#include "rest/ServiceCodes.h"
#include "services/AlertServiceImpl.h"
#include "services/KSServiceException.h"
#include "services/ServiceData.h"

namespace {

// Built at load time, in this order.
const std::string JOB_DONE = "DONE";
const std::string HIGH_WATERMARK_MESSAGE_KEY = "eventlog.omra.ksu.cdp.storage.highwatermark";
const std::string IO_ERROR_MESSAGE_KEY = "eventlog.omra.ksu.cdp.storage.ioerror";
const std::string EVICTION_START_MESSAGE_KEY = "eventlog.omra.ksu.cdp.eviction.start";
const std::string EVICTION_FAILED_MESSAGE_KEY = "eventlog.omra.ksu.cdp.eviction.failed";
const std::string NO_STORAGE_SPACE_ON_DEVICE = "eventlog.omra.ksu.cdp.storage.nospace";
const std::string FULL_SYNC_STARTED_MESSAGE_KEY = "eventlog.omra.ksu.cdp.fullsync.started";
const std::string FULL_SYNC_RESUMED_MESSAGE_KEY = "eventlog.omra.ksu.cdp.fullsync.resumed";
const std::string FULL_SYNC_SUSPENDED_MESSAGE_KEY = "eventlog.omra.ksu.cdp.fullsync.suspended";
const std::string FULL_SYNC_DONE_MESSAGE_KEY = "eventlog.omra.ksu.cdp.fullsync.done";
const std::string PARTIAL_BACKUP_IMAGE_GENERATED_KEY = "eventlog.omra.ksu.cdp.partialimage.generated";

const int EVICTION_FAILED_ALERT = 44;
const int EVICTION_START_ALERT = 500;

enum class AlertAttributes { NONE, VM, VM_AND_JOB };

struct AlertRow {
  int code;
  const std::string* key;
  AlertSeverity severity;
  AlertPriority priority;
  AlertAttributes attributes;
};

// The engine's alert codes. Codes 2 and 45 are about the engine's storage as
// a whole and name no VM.
const AlertRow ALERT_TABLE[] = {
    {2, &HIGH_WATERMARK_MESSAGE_KEY, ALERT_SEVERITY_CRITICAL, ALERT_PRIORITY_HIGH, AlertAttributes::NONE},
    {18, &IO_ERROR_MESSAGE_KEY, ALERT_SEVERITY_ERROR, ALERT_PRIORITY_HIGH, AlertAttributes::VM},
    {44, &EVICTION_FAILED_MESSAGE_KEY, ALERT_SEVERITY_ERROR, ALERT_PRIORITY_HIGH, AlertAttributes::VM},
    {45, &NO_STORAGE_SPACE_ON_DEVICE, ALERT_SEVERITY_CRITICAL, ALERT_PRIORITY_HIGH, AlertAttributes::NONE},
    {500, &EVICTION_START_MESSAGE_KEY, ALERT_SEVERITY_INFO, ALERT_PRIORITY_LOW, AlertAttributes::VM_AND_JOB},
    {501, &FULL_SYNC_STARTED_MESSAGE_KEY, ALERT_SEVERITY_INFO, ALERT_PRIORITY_LOW, AlertAttributes::VM},
    {502, &FULL_SYNC_RESUMED_MESSAGE_KEY, ALERT_SEVERITY_INFO, ALERT_PRIORITY_LOW, AlertAttributes::VM},
    {503, &FULL_SYNC_DONE_MESSAGE_KEY, ALERT_SEVERITY_INFO, ALERT_PRIORITY_LOW, AlertAttributes::VM},
    {504, &FULL_SYNC_SUSPENDED_MESSAGE_KEY, ALERT_SEVERITY_INFO, ALERT_PRIORITY_LOW, AlertAttributes::VM},
    {505, &PARTIAL_BACKUP_IMAGE_GENERATED_KEY, ALERT_SEVERITY_INFO, ALERT_PRIORITY_LOW, AlertAttributes::VM},
};

// A char array of the engine's, up to its NUL but never past its end.
template <size_t N>
std::string fieldText(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

}  // namespace

void KeepstoneServiceGateway::getMasterServerName(std::string& name) {
  const MasterConfiguration config = readMasterConfiguration();
  if (config.readResult != 0 || !config.hasMasterServer) {
    throw KSServiceException(MASTER_CONFIG_UNREADABLE_CODE,
                             "Failed to read master server hostname from Keepstone configuration file");
  }
  name = config.masterServer;
}

void KeepstoneServiceGateway::setAlertParameters(int alertCode, const std::string& vmId, const std::string& jobId,
                                                 boost::shared_ptr<AlertServiceData> record) {
  for (const AlertRow& row : ALERT_TABLE) {
    if (row.code != alertCode) continue;
    record->severity = row.severity;
    record->priority = row.priority;
    record->messageKey = *row.key;
    if (row.attributes != AlertAttributes::NONE) record->insertAttribute(AlertHelper::VMUUID, vmId);
    if (row.attributes == AlertAttributes::VM_AND_JOB) record->insertAttribute(AlertHelper::JOBID, jobId);
    return;
  }
}

void KeepstoneServiceGateway::raiseAlert(const std::string& vmId, int alertCode, const std::string& jobId) {
  std::ostringstream message;
  message << "Raising alert for VM: " << vmId << ", bearing code: " << alertCode;
  ksu_logmsg_str(PROGRESS_LEVEL, "KeepstoneServiceGateway::raiseAlert", message.str());

  OperationHandlers handlers;
  KSUServiceImpl* alertHandler = handlers.make(ALERT_SERVICE);
  KSUServiceImpl* hostHandler = handlers.make(HOST_SERVICE);
  hostHandler->setNext(alertHandler);

  const boost::shared_ptr<AlertServiceData> record = boost::make_shared<AlertServiceData>();
  setAlertParameters(alertCode, vmId, jobId, record);
  static_cast<ServiceInterface*>(hostHandler)->handleRequest(record.get());
}

void KeepstoneServiceGateway::requestEviction(int passes, evict_vm_list* evictList, vm_node_list** requested) {
  static const std::string function = "KeepstoneServiceGateway::requestEviction";
  // Without a list to move them to, requested VMs would leave the evict list
  // and the engine would lose the jobs started for them: request none.
  if (requested == nullptr) throw KSServiceException(INVALID_REQUEST_CODE, "Requested VM list is null");
  OperationHandlers handlers;
  ServiceInterface* backupHandler = handlers.make(BACKUP_SERVICE);

  for (int pass = 1; pass <= passes; ++pass) {
    // The engine passes as many passes as it has VMs; a failed pass leaves its
    // VM on top, so the list only runs dry when the engine asked for more.
    evict_vm_info* vm = get_element_from_evlist(evictList);
    if (vm == nullptr) {
      std::ostringstream reason;
      reason << "Eviction list holds no VM for pass " << pass << " of " << passes;
      throw KSServiceException(INVALID_REQUEST_CODE, reason.str());
    }

    const boost::shared_ptr<EvictionServiceData> record = boost::make_shared<EvictionServiceData>();
    std::ostringstream message;
    int alertCode = EVICTION_START_ALERT;
    // Room for any job id, taken before the request: once a backup runs,
    // writing its id down must not need memory.
    std::string jobIdText(std::numeric_limits<uint64_t>::digits10 + 1, '0');
    try {
      message << "VM: " << fieldText(vm->vm_id) << "\nPolicy: " << fieldText(vm->policy_name)
              << "\nVM Size: " << vm->vm_size << "\nEviction Type: " << vm->evict_type;
      std::string masterServerName;
      getMasterServerName(masterServerName);
      message << "\nMaster server: " << masterServerName;
      ksu_logmsg_str(FAILURE_LEVEL, function, message.str());

      record->vmId = fieldText(vm->vm_id);
      record->policyName = fieldText(vm->policy_name);
      record->evictionType = vm->evict_type;
      record->masterServerName = masterServerName;
      // The node is taken before the request goes out: once a backup runs
      // for the VM, nothing may keep the VM from the requested list. The
      // handler throws only while no backup runs, or when the daemon's
      // answer holds no job id to follow.
      if (insert_into_vm_list(requested, vm) != KSCDP_OK) {
        throw KSServiceException(KSCDP_ERR_INTERNAL, "No memory for the VM's node on the requested VM list");
      }
      try {
        backupHandler->handleRequest(record.get());
      } catch (...) {
        get_from_vm_list(requested);  // the node taken above, still the head
        throw;
      }

      // The backup runs: nothing from here to the alert may throw.
      vm->job_id = record->jobId;
      vm->evict_state = 1;
      remove_vm_from_evlist(evictList);
      const std::to_chars_result written =
          std::to_chars(jobIdText.data(), jobIdText.data() + jobIdText.size(), record->jobId);
      jobIdText.resize(static_cast<size_t>(written.ptr - jobIdText.data()));
    } catch (const KSServiceException& e) {
      message << "Exception occured: " << e.what();
      ksu_logmsg_str(FAILURE_LEVEL, function, message.str());
      alertCode = EVICTION_FAILED_ALERT;
      jobIdText.clear();
    }
    raiseAlert(record->vmId, alertCode, jobIdText);
  }
}

void KeepstoneServiceGateway::getEvictionStatus(int nodes, vm_node_list** requested) {
  OperationHandlers handlers;
  if (requested == nullptr) throw KSServiceException(INVALID_REQUEST_CODE, "Eviction list to check status is null");
  vm_node_list* node = *requested;
  ServiceInterface* jobHandler = handlers.make(JOB_SERVICE);

  for (int polled = 0; polled < nodes && node != nullptr; ++polled, node = node->next) {
    if (node->vm == nullptr) continue;  // a node without a VM has no job to ask about
    const boost::shared_ptr<JobServiceData> record = boost::make_shared<JobServiceData>();
    record->jobId = node->vm->job_id;
    jobHandler->handleRequest(record.get());
    node->vm->evict_state = record->jobState == JOB_DONE ? 2 : 1;
  }
}
