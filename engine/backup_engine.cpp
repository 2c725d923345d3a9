// The engine's four calls. Each makes a gateway, runs one operation and turns
// whatever goes wrong into a log line and its result: no exception leaves.
#include <cxxabi.h>
#include <kscdp/backup_engine.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <exception>
#include <new>
#include <string>

#include "gateway/KeepstoneServiceGateway.h"
#include "platform/ksu_log.h"
#include "port/cancellation.h"
#include "rest/CCTCurlWrapper.h"
#include "rest/ServiceCodes.h"
#include "services/AlertServiceImpl.h"
#include "services/KSServiceException.h"

namespace {

// Tries of one alert that runs out of memory before the failure is logged.
const int kRaiseAttempts = 3;

void logContained(const char* function, const char* what) noexcept {
  try {
    ksu_logmsg_str(FAILURE_LEVEL, function, std::string("Exception occured: ") + what);
  } catch (...) {
    // Nothing is left to report with; the engine must still get its result.
  }
}

// Runs `operation` with the thread's cancellation held off and returns its
// result, or, when it throws, logs the exception under `function` and
// returns its code: the service layer's or the REST client's own, -1 for
// anything else. Only the unwinding of a thread that is ending (a
// cancellation acted on despite all, or pthread_exit) passes on: swallowing
// it would abort the process.
template <typename Operation>
int contained(const char* function, Operation operation) {
  const port::CancellationHeldOff heldOff;
  try {
    return operation();
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (const KSServiceException& e) {
    logContained(function, e.what());
    return e.m_code;
  } catch (const KSCurlWrapperException& e) {
    logContained(function, e.what());
    return e.m_code;
  } catch (const std::exception& e) {
    logContained(function, e.what());
  } catch (...) {
    logContained(function, "unknown exception");
  }
  return KSCDP_ERR_INTERNAL;
}

std::string requiredText(const char* text, const char* what) {
  if (text == nullptr) throw KSServiceException(INVALID_REQUEST_CODE, std::string(what) + " is null");
  return text;
}

}  // namespace

extern "C" {

int raise_backup_alert(const char* vm_id, int alert_code, const char* job_id) {
  static const char function[] = "raise_backup_alert";
  // The engine is told nothing either way, so an alert that ran out of
  // memory is raised again: a failed allocation is most often gone at the
  // next try. A try that failed after the publisher had taken the alert makes
  // it arrive twice, never lost.
  for (int attempt = 1;; ++attempt) {
    bool outOfMemory = false;
    contained(function, [&] {
      try {
        const boost::shared_ptr<KeepstoneServiceGateway> gateway = boost::make_shared<KeepstoneServiceGateway>();
        const std::string jobId = requiredText(job_id, "Job id");
        const std::string vmId = requiredText(vm_id, "VM identifier");
        gateway->raiseAlert(vmId, alert_code, jobId);
      } catch (const std::bad_alloc&) {
        if (attempt == kRaiseAttempts) throw;
        outOfMemory = true;
      }
      return KSCDP_OK;
    });
    if (!outOfMemory) return KSCDP_OK;
  }
}

int call_evict_data(int passes, evict_vm_list* evict_list, vm_node_list** requested) {
  static const char function[] = "call_evict_data";
  return contained(function, [&] {
    const boost::shared_ptr<KeepstoneServiceGateway> gateway = boost::make_shared<KeepstoneServiceGateway>();
    gateway->requestEviction(passes, evict_list, requested);
    return KSCDP_OK;
  });
}

int call_check_eviction_progress(int nodes, vm_node_list** requested) {
  static const char function[] = "call_check_eviction_progress";
  return contained(function, [&] {
    const boost::shared_ptr<KeepstoneServiceGateway> gateway = boost::make_shared<KeepstoneServiceGateway>();
    gateway->getEvictionStatus(nodes, requested);
    return KSCDP_OK;
  });
}

int stop_alert_thread(void) {
  static const char function[] = "stop_alert_thread";
  // Two steps, so that a progress line that could not be written (short of
  // memory) still lets the publisher stop and store what waits.
  contained(function, [&] {
    ksu_logmsg_str(PROGRESS_LEVEL, function,
                   "Stopping Alert Service thread which publishes the events to master server's MQBroker");
    return KSCDP_OK;
  });
  contained(function, [&] {
    NotificationInterface::destroyInstance();
    return KSCDP_OK;
  });
  return KSCDP_OK;
}

}  // extern "C"
