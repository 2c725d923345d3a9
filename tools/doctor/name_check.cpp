// The master's name through the C library's resolver, as every transport of
// the library resolves it, bounded in time with an asynchronous lookup.
#include <netdb.h>
#include <sys/socket.h>

#include <ctime>
#include <memory>
#include <mutex>
#include <vector>

#include "checks.h"

namespace doctor {
namespace {

const char kId[] = "master-name";
const char kTitle[] = "master's name";
const long kLookupMilliseconds = 2000;

// One lookup; `request` points into the object, so it must not move while the
// resolver works on it.
struct Lookup {
  std::string host;
  addrinfo hints{};
  gaicb request{};
};

// Lookups that outlived their time and could not be cancelled: the
// resolver's thread still writes into them, so they live until the process
// ends.
std::mutex g_abandonedMutex;
std::vector<std::unique_ptr<Lookup>> g_abandoned;

timespec after(long milliseconds) {
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += milliseconds / 1000;
  deadline.tv_nsec += (milliseconds % 1000) * 1000000;
  if (deadline.tv_nsec >= 1000000000) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000;
  }
  return deadline;
}

std::string firstAddress(const addrinfo* addresses) {
  char text[NI_MAXHOST] = "";
  if (addresses == nullptr ||
      getnameinfo(addresses->ai_addr, addresses->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0) {
    return "an address";
  }
  return text;
}

}  // namespace

CheckResult checkMasterName(const Configuration& configuration, bool& resolves) {
  resolves = false;
  if (!configuration.namesMaster()) return skippedResult(kId, kTitle, kNoMasterReason);

  std::unique_ptr<Lookup> lookup(new Lookup);
  lookup->host = configuration.master();
  lookup->hints.ai_socktype = SOCK_STREAM;
  lookup->request.ar_name = lookup->host.c_str();
  lookup->request.ar_request = &lookup->hints;
  gaicb* requests[] = {&lookup->request};
  int error = getaddrinfo_a(GAI_NOWAIT, requests, 1, nullptr);
  if (error == 0) {
    const timespec deadline = after(kLookupMilliseconds);
    while (gai_error(&lookup->request) == EAI_INPROGRESS) {
      timespec now{};
      clock_gettime(CLOCK_REALTIME, &now);
      long left = (deadline.tv_sec - now.tv_sec) * 1000 + (deadline.tv_nsec - now.tv_nsec) / 1000000;
      if (left <= 0) break;
      const timespec wait = {left / 1000, (left % 1000) * 1000000};
      const gaicb* const waiting[] = {&lookup->request};
      gai_suspend(waiting, 1, &wait);
    }
    error = gai_error(&lookup->request);
  }
  if (error == EAI_INPROGRESS) {
    if (gai_cancel(&lookup->request) == EAI_NOTCANCELED) {
      std::lock_guard<std::mutex> lock(g_abandonedMutex);
      g_abandoned.push_back(std::move(lookup));
    } else if (lookup->request.ar_result != nullptr) {
      freeaddrinfo(lookup->request.ar_result);  // finished just before the cancel
    }
    return failedResult(kId, kTitle, configuration.master() + " did not resolve within 2 s",
                        "check that the name servers of /etc/resolv.conf answer from this host");
  }
  if (error != 0) {
    return failedResult(kId, kTitle, configuration.master() + " does not resolve: " + gai_strerror(error),
                        "correct the server line of " + configuration.path +
                            ", or make the name known to DNS or /etc/hosts");
  }
  const std::string address = firstAddress(lookup->request.ar_result);
  freeaddrinfo(lookup->request.ar_result);
  resolves = true;
  return okResult(kId, kTitle, configuration.master() + " resolves to " + address);
}

}  // namespace doctor
