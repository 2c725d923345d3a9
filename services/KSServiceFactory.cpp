#include "services/KSServiceFactory.h"

#include "services/AlertServiceImpl.h"
#include "services/BackupServiceImpl.h"
#include "services/JobServiceImpl.h"

thread_local KSServiceFactory* KSServiceFactory::m_instance = nullptr;

KSServiceFactory* KSServiceFactory::getInstance() {
  if (m_instance == nullptr) m_instance = new KSServiceFactory();
  return m_instance;
}

void KSServiceFactory::destroyInstance() {
  delete m_instance;
  m_instance = nullptr;
}

KSUServiceImpl* KSServiceFactory::getServiceDataInstance(KSServiceType type) const {
  switch (type) {
    case BACKUP_SERVICE: return new BackupServiceImpl();
    case JOB_SERVICE: return new JobServiceImpl();
    case ALERT_SERVICE: return new AlertServiceImpl();
    case HOST_SERVICE: return new HostServiceImpl();
  }
  return nullptr;
}
