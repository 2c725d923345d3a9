#include "services/AlertServiceImpl.h"

#include <pthread.h>

#include <sstream>

#include "platform/ksu_log.h"
#include "platform/notification.h"
#include "rest/MasterConfiguration.h"
#include "rest/ServiceCodes.h"
#include "services/KSServiceException.h"
#include "services/ServiceData.h"

const std::string AlertHelper::producerType = "Keepstone";
const std::string AlertHelper::producerSubType = "CDP";
const std::string AlertHelper::notificationType = "CDP Backup Engine";
const std::string AlertHelper::VMUUID = "uuid";
const std::string AlertHelper::JOBID = "jobid";

NotificationSupplier* NotificationInterface::m_notificationSupplier = nullptr;

namespace {

const std::string SERVER_ATTRIBUTE_KEY = "server";
const std::string NULL_RECORD_MESSAGE = "Invalid shared common object passed to worker service";
const std::string NOT_AN_ALERT_MESSAGE =
    "Invalid shared object passed to worker service. Internal error: casting to AlertServiceData failed.";

// Narrows a record's 64-bit value to the 32 bits of the alert enumerations.
template <typename Enumeration>
Enumeration narrowTo(int64_t value) {
  return static_cast<Enumeration>(static_cast<int32_t>(value));
}

}  // namespace

std::string AlertHelper::getPriority(const AlertPriority& priority) {
  switch (priority) {
    case ALERT_PRIORITY_LOW: return "LOW";
    case ALERT_PRIORITY_MEDIUM: return "MEDIUM";
    case ALERT_PRIORITY_HIGH: return "HIGH";
  }
  return std::string();
}

std::string AlertHelper::getSeverity(const AlertSeverity& severity) {
  switch (severity) {
    case ALERT_SEVERITY_INFO: return "INFO";
    case ALERT_SEVERITY_DEBUG: return "DEBUG";
    case ALERT_SEVERITY_WARNING: return "WARNING";
    case ALERT_SEVERITY_ERROR: return "ERROR";
    case ALERT_SEVERITY_CRITICAL: return "CRITICAL";
    case ALERT_SEVERITY_NOTICE: return "NOTICE";
  }
  return "UNKNOWN";
}

std::string AlertHelper::convertCCTIDToUUID(const std::string& cctid) {
  std::string uuid;
  size_t written = 0;
  for (const char c : cctid) {
    if (written == 8 || written == 13 || written == 18 || written == 23) {
      uuid += '-';
      ++written;
    }
    uuid += c;
    ++written;
  }
  std::ostringstream message;
  message << "Converting CCTID: " << cctid << ", UUID: " << uuid;
  ksu_logmsg_str(TRACE_LEVEL, "AlertHelper::convertCCTIDToUUID", message.str());
  return uuid;
}

HostServiceImpl::HostServiceImpl() {
  // A failed read leaves the record without a host name.
  const MasterConfiguration config = readMasterConfiguration();
  if (config.hasHostName) serverName = config.hostName;
}

HostServiceImpl::~HostServiceImpl() {}

int HostServiceImpl::handleRequest(ServiceData* data) {
  if (data == nullptr) throw KSServiceException(INVALID_REQUEST_CODE, NULL_RECORD_MESSAGE);
  auto* alert = dynamic_cast<AlertServiceData*>(data);
  if (alert == nullptr) throw KSServiceException(INVALID_REQUEST_CODE, NOT_AN_ALERT_MESSAGE);

  // Only alerts that name a VM carry attributes; the others stay as they are.
  if (!alert->attributes.empty()) {
    const auto uuid = alert->attributes.find(AlertHelper::VMUUID);
    if (uuid != alert->attributes.end()) uuid->second = AlertHelper::convertCCTIDToUUID(uuid->second);
    alert->insertAttribute(SERVER_ATTRIBUTE_KEY, serverName);
  }
  return forward(data);
}

AlertServiceImpl::~AlertServiceImpl() {}

int AlertServiceImpl::handleRequest(ServiceData* data) {
  const auto* alert = dynamic_cast<const AlertServiceData*>(data);
  if (alert == nullptr) throw KSServiceException(INVALID_REQUEST_CODE, NOT_AN_ALERT_MESSAGE);

  NotificationEvent event{AlertHelper::version,
                          AlertHelper::producerType,
                          AlertHelper::producerSubType,
                          AlertHelper::notificationType,
                          AlertHelper::getPriority(narrowTo<AlertPriority>(alert->priority)),
                          AlertHelper::getSeverity(narrowTo<AlertSeverity>(alert->severity)),
                          alert->messageKey,
                          alert->attributes};
  const int result = NotificationInterface::getInstance()->send_notification(event);

  // An alert without attributes names no VM and logs an empty message. One
  // with attributes but no "uuid" shows an empty VM.
  std::ostringstream message;
  if (!alert->attributes.empty()) {
    const auto uuid = alert->attributes.find(AlertHelper::VMUUID);
    message << "Called Alert (send_notification) for VM: "
            << (uuid != alert->attributes.end() ? uuid->second : std::string()) << "\nRetval: " << result;
  }
  ksu_logmsg_str(PROGRESS_LEVEL, "AlertServiceImpl::handleRequest", message.str());
  return result;
}

port::Mutex NotificationInterface::m_makingMutex;
port::Mutex NotificationInterface::m_mutex;
port::NoDestructor<port::CondVar> NotificationInterface::m_sendEnded;
port::NoDestructor<std::map<const NotificationSupplier*, int>> NotificationInterface::m_runningSends;

namespace {

// The holder's fork handlers, registered when the library loads; glibc
// forgets them when it is unloaded. They run before the stand-ins' own
// (registered when that library loaded, first) in prepare, and after them in
// the parent and the child, whatever order the engine loaded things in.
struct ForkHandlers {
  ForkHandlers() {
    pthread_atfork(&NotificationInterface::prepareFork, &NotificationInterface::parentAfterFork,
                   &NotificationInterface::childAfterFork);
  }
} g_forkHandlers;

}  // namespace

void NotificationInterface::prepareFork() NO_THREAD_SAFETY_ANALYSIS {
  m_makingMutex.lock();
  m_mutex.lock();
}

void NotificationInterface::parentAfterFork() NO_THREAD_SAFETY_ANALYSIS {
  m_mutex.unlock();
  m_makingMutex.unlock();
}

void NotificationInterface::childAfterFork() NO_THREAD_SAFETY_ANALYSIS {
  m_notificationSupplier = nullptr;  // the parent's: the child leaves it alone and never deletes it
  m_runningSends->clear();           // the sends of threads that the child does not have
  m_mutex.unlock();
  m_makingMutex.unlock();
}

NotificationInterface::SupplierUse::~SupplierUse() {
  port::MutexLock lock(m_mutex);
  if (--(*m_runningSends)[m_supplier] == 0) m_runningSends->erase(m_supplier);
  m_sendEnded->notifyAll();
}

NotificationInterface::SupplierUse NotificationInterface::getInstance() {
  {
    port::MutexLock lock(m_mutex);
    if (m_notificationSupplier != nullptr) return borrow();
  }
  port::MutexLock making(m_makingMutex);
  {
    port::MutexLock lock(m_mutex);
    if (m_notificationSupplier != nullptr) return borrow();  // made while this alert waited
  }
  NotificationSupplier* const made = new NotificationSupplier();
  port::MutexLock lock(m_mutex);
  m_notificationSupplier = made;
  return borrow();
}

NotificationInterface::SupplierUse NotificationInterface::borrow() {
  ++(*m_runningSends)[m_notificationSupplier];
  return SupplierUse(m_notificationSupplier);
}

NotificationSupplier* NotificationInterface::takeOut() {
  port::MutexLock lock(m_mutex);
  NotificationSupplier* const supplier = m_notificationSupplier;
  m_notificationSupplier = nullptr;
  if (supplier != nullptr) {
    m_sendEnded->wait(m_mutex, [supplier]() REQUIRES(m_mutex) { return m_runningSends->count(supplier) == 0; });
  }
  return supplier;
}

void NotificationInterface::destroyInstance() {
  NotificationSupplier* const supplier = takeOut();
  if (supplier == nullptr) return;
  try {
    supplier->shutdown();
  } catch (...) {
    port::MutexLock lock(m_mutex);
    if (m_notificationSupplier == nullptr) {
      m_notificationSupplier = supplier;
    } else {
      delete supplier;
    }
    throw;
  }
  delete supplier;
}

void NotificationInterface::releaseAtUnload() { delete takeOut(); }

namespace {

// Made after the holder's own objects, so torn down before them: when the
// library is unloaded, and when the process exits.
struct ReleaseAtUnload {
  ~ReleaseAtUnload() {
    try {
      NotificationInterface::releaseAtUnload();
    } catch (...) {
      // Nothing may leave a destructor; the supplier's own stop logs its failures.
    }
  }
} g_releaseAtUnload;

}  // namespace
