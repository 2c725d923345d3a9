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
  // Never null; creates the singleton on first use. Not thread-safe: the
  // engine calls the library from one thread at a time.
  static KSServiceFactory* getInstance();
  // Deletes the singleton, if any. Handlers it made stay valid.
  static void destroyInstance();

  // A new handler of `type` with no successor, owned by the caller (delete it
  // through this pointer); null for an unknown type. A handler constructor's
  // exception leaves unchanged, with nothing allocated.
  KSUServiceImpl* getServiceDataInstance(KSServiceType type) const;

 private:
  KSServiceFactory() = default;
  ~KSServiceFactory() = default;

  static KSServiceFactory* m_instance;
};

#endif  // KSCDP_SERVICES_KSSERVICEFACTORY_H_
