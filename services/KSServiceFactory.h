// Makes the service handlers. The singleton lives for one gateway operation:
// getInstance at its start, destroyInstance at its end.
#ifndef KSCDP_SERVICES_KSSERVICEFACTORY_H_
#define KSCDP_SERVICES_KSSERVICEFACTORY_H_

class KSUServiceImpl;

enum KSServiceType {
  BACKUP_SERVICE = 1,  // BackupServiceImpl
  JOB_SERVICE = 2,     // JobServiceImpl
  ALERT_SERVICE = 3,   // AlertServiceImpl
  HOST_SERVICE = 4,    // HostServiceImpl
};

class KSServiceFactory {
 public:
  // The calling thread's factory, made on its first use; never null.
  static KSServiceFactory* getInstance();
  // Deletes the calling thread's factory, if any. Handlers it made stay
  // valid; factories of other threads are untouched.
  static void destroyInstance();

  // A new handler of `type` with no successor, owned by the caller (delete it
  // through this pointer); null for an unknown type. A handler constructor's
  // exception leaves unchanged, with nothing allocated.
  KSUServiceImpl* getServiceDataInstance(KSServiceType type) const;

 private:
  KSServiceFactory() = default;
  ~KSServiceFactory() = default;

  // One singleton per thread. Operations on different threads never share a
  // factory, so one operation's destroyInstance cannot delete the factory
  // another is using, and no lock is needed; an engine calling from one
  // thread sees one factory per operation. The factory holds no state, so
  // nothing is lost by not sharing it.
  static thread_local KSServiceFactory* m_instance;
};

#endif  // KSCDP_SERVICES_KSSERVICEFACTORY_H_
