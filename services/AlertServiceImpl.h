// Alert publishing: the alert vocabulary, the host service that completes an
// alert's attributes, and the alert service that publishes the alert as one
// notification event through the process-wide NotificationSupplier.
//
// The alert chain is HostServiceImpl -> AlertServiceImpl; the gateway builds it
// for every alert and owns both handlers.
#ifndef KSCDP_SERVICES_ALERTSERVICEIMPL_H_
#define KSCDP_SERVICES_ALERTSERVICEIMPL_H_

#include <cstdint>
#include <map>
#include <string>

#include "port/mutex.h"
#include "port/no_destructor.h"
#include "services/KSUServiceImpl.h"

class NotificationSupplier;

// Alert priority as alert records carry it. Any other value is valid to hold
// and has the empty text.
enum AlertPriority : int32_t {
  ALERT_PRIORITY_LOW = 0,
  ALERT_PRIORITY_MEDIUM = 1,
  ALERT_PRIORITY_HIGH = 2,
};

// Alert severity as alert records carry it; the numbering is part of the
// interface (DEBUG is 1, NOTICE is 5). Any other value has the text "UNKNOWN".
enum AlertSeverity : int32_t {
  ALERT_SEVERITY_INFO = 0,
  ALERT_SEVERITY_DEBUG = 1,
  ALERT_SEVERITY_WARNING = 2,
  ALERT_SEVERITY_ERROR = 3,
  ALERT_SEVERITY_CRITICAL = 4,
  ALERT_SEVERITY_NOTICE = 5,
};

// The fixed vocabulary of published alerts. Static members only; the strings
// are complete before any exported function can run and are never written.
class AlertHelper {
 public:
  AlertHelper() = delete;

  // "LOW", "MEDIUM", "HIGH"; empty for any other value.
  static std::string getPriority(const AlertPriority& priority);
  // "INFO", "DEBUG", "WARNING", "ERROR", "CRITICAL", "NOTICE"; "UNKNOWN" for
  // any other value.
  static std::string getSeverity(const AlertSeverity& severity);
  // Inserts a dash before the characters that land at output positions 8,
  // 13, 18 and 23, so 32 characters become the 8-4-4-4-12 form. Takes any
  // text as it is (no length, case or digit check) and logs the conversion at
  // level 2.
  static std::string convertCCTIDToUUID(const std::string& cctid);

  static const std::string producerType;
  static const std::string producerSubType;
  static const std::string notificationType;
  static const std::string VMUUID;  // attribute key of the VM identifier
  static const std::string JOBID;   // attribute key of the job identifier
  static constexpr int version = 1;
};

// First handler of the alert chain: rewrites the "uuid" attribute into UUID
// form and adds "server" (this host's configured name), then forwards.
class HostServiceImpl : public virtual KSUServiceImpl {
 public:
  // Reads the host name from the master configuration; a failed read or a
  // missing name leaves serverName empty.
  HostServiceImpl();
  ~HostServiceImpl() override;

  // Throws KSServiceException 20 for a null record or one that is not an
  // AlertServiceData. A record without attributes is passed on unchanged.
  int handleRequest(ServiceData* data) override;

 private:
  std::string serverName;  // fixed when the handler is made
};

// Last handler of the alert chain: turns the record into one
// NotificationEvent, hands it to the process-wide supplier and returns the
// supplier's result. Never forwards.
class AlertServiceImpl : public virtual KSUServiceImpl {
 public:
  AlertServiceImpl() = default;
  ~AlertServiceImpl() override;

  // Throws KSServiceException 20 for a null record or one that is not an
  // AlertServiceData; exceptions of the supplier pass through unchanged.
  int handleRequest(ServiceData* data) override;
};

// Holder of the one NotificationSupplier of the process, shared by alerts on
// every thread.
//
// The supplier is made by the first alert that needs it, under a lock of its
// own, so that racing first alerts make one and an alert that finds one
// never waits for the making. A send borrows it (SupplierUse) for as long
// as send_notification runs. destroyInstance takes the supplier out of the
// holder first, so that an alert after that point makes a new one, waits
// under the same lock for the sends still running on the old one (each only
// queues its event), and then shuts the old one down and deletes it with no
// lock held. An alert raised beside a stop is therefore delivered by the old
// supplier, which had it queued before its shutdown, or by a new one; no
// supplier is freed while a send uses it, and no alert waits for a shutdown.
class NotificationInterface {
 public:
  NotificationInterface() = delete;

  // The supplier, made on first use, borrowed until this object goes.
  class SupplierUse {
   public:
    ~SupplierUse() EXCLUDES(m_mutex);
    SupplierUse(const SupplierUse&) = delete;
    SupplierUse& operator=(const SupplierUse&) = delete;
    NotificationSupplier* operator->() const { return m_supplier; }

   private:
    friend class NotificationInterface;
    explicit SupplierUse(NotificationSupplier* supplier) : m_supplier(supplier) {}
    NotificationSupplier* m_supplier;
  };

  // Borrows the supplier, making it on first use. A throwing constructor
  // leaves none, so the next call tries again.
  static SupplierUse getInstance() EXCLUDES(m_makingMutex, m_mutex);
  // Shuts the supplier down and deletes it; does nothing when there is none.
  // If shutdown() throws, the supplier goes back into the holder (unless an
  // alert has made a new one meanwhile; it is then deleted all the same).
  static void destroyInstance() EXCLUDES(m_mutex);
  // The library is being unloaded, or the process exits, with a supplier that
  // no stop_alert_thread took down: deletes it without shutdown(), which a
  // supplier takes as leaving at once. Its delivery thread is gone when this
  // returns, so no code of the library runs once it is unmapped; what the
  // broker has not acknowledged stays in the outbox for the next publisher.
  static void releaseAtUnload() EXCLUDES(m_mutex);

  // The fork handlers, registered when the library loads: fork() waits until
  // no supplier is being made or taken out. A child starts with none: its
  // parent's, with its connection and thread, is the parent's, and the child
  // neither uses, shuts down nor deletes it.
  static void prepareFork();
  static void parentAfterFork();
  static void childAfterFork();

 private:
  // Takes the supplier out of the holder and waits until no send uses it;
  // null when there is none.
  static NotificationSupplier* takeOut() EXCLUDES(m_mutex);
  // Counts a send on the installed supplier.
  static SupplierUse borrow() REQUIRES(m_mutex);

  // Held by the alert that makes a supplier, while it makes it; taken
  // before m_mutex.
  static port::Mutex m_makingMutex ACQUIRED_BEFORE(m_mutex);
  // Held while a supplier is installed or taken out, never across its making,
  // a send or a shutdown.
  static port::Mutex m_mutex;
  // Never destroyed, as the count of sends below: an engine thread may still
  // end a send while the process exits.
  static port::NoDestructor<port::CondVar> m_sendEnded;
  static NotificationSupplier* m_notificationSupplier GUARDED_BY(m_mutex);  // owned; null when absent
  // Sends running on each supplier not yet deleted.
  static port::NoDestructor<std::map<const NotificationSupplier*, int>> m_runningSends GUARDED_BY(m_mutex);
};

#endif  // KSCDP_SERVICES_ALERTSERVICEIMPL_H_
