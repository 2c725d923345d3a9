// The master's name through the C library's resolver, as every transport of
// the library resolves it, bounded in time: the lookup runs on a thread of
// its own, which a lookup that outlives its time leaves behind to end with
// the process.
#include <netdb.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "checks.h"

namespace doctor {
namespace {

const char kId[] = "master-name";
const char kTitle[] = "master's name";
const std::chrono::seconds kLookupTime(2);

// A lookup's outcome, shared by the check and the lookup's thread.
struct Lookup {
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;    // guarded by mutex, as the two below
  int error = 0;        // getaddrinfo's result
  std::string address;  // the first address, numeric
};

std::string firstAddress(const addrinfo* addresses) {
  char text[NI_MAXHOST] = "";
  if (addresses == nullptr ||
      getnameinfo(addresses->ai_addr, addresses->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0) {
    return "an address";
  }
  return text;
}

void resolve(const std::string& host, const std::shared_ptr<Lookup>& lookup) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* addresses = nullptr;
  const int error = getaddrinfo(host.c_str(), nullptr, &hints, &addresses);
  const std::string address = error == 0 ? firstAddress(addresses) : std::string();
  if (addresses != nullptr) freeaddrinfo(addresses);
  std::lock_guard<std::mutex> lock(lookup->mutex);
  lookup->done = true;
  lookup->error = error;
  lookup->address = address;
  lookup->finished.notify_all();
}

}  // namespace

CheckResult checkMasterName(const Configuration& configuration, bool& resolves) {
  resolves = false;
  if (!configuration.namesMaster()) return skippedResult(kId, kTitle, kNoMasterReason);

  const auto lookup = std::make_shared<Lookup>();
  std::thread(resolve, configuration.master(), lookup).detach();
  std::unique_lock<std::mutex> lock(lookup->mutex);
  std::string failure;
  std::string action;
  if (!lookup->finished.wait_for(lock, kLookupTime, [&] { return lookup->done; })) {
    failure = configuration.master() + " did not resolve within 2 s";
    action = "check that the name servers of /etc/resolv.conf answer from this host";
  } else if (lookup->error != 0) {
    failure = configuration.master() + " does not resolve: " + gai_strerror(lookup->error);
    action = "correct the server line of " + configuration.path + ", or make the name known to DNS or /etc/hosts";
  }
  if (!failure.empty() && linksUseMastersName(configuration)) return failedResult(kId, kTitle, failure, action);
  if (!failure.empty()) {
    return warningResult(kId, kTitle,
                         failure + "; it does not matter here: rest_url, ksqd_url and broker name other hosts",
                         action + " before a link falls back to the master's name");
  }
  resolves = true;
  return okResult(kId, kTitle, configuration.master() + " resolves to " + lookup->address);
}

}  // namespace doctor
