// A process of its own that raises numbered events through the stand-in
// NotificationSupplier, for tests about what outlives it:
//
//   kscdp_alert_raiser FIRST LAST [FILE_SIZE_LIMIT]
//
// Event n has the message key "eventlog.omra.ksu.cdp.fullsync.done" and the
// one attribute "seq" = n. Prints "accepted <count> pid <pid>" once every
// event was handed over, then waits to be killed. With FILE_SIZE_LIMIT,
// writes beyond that many bytes of a file fail with EFBIG, as on a full disk,
// and the raiser shuts the supplier down and exits once every event is
// delivered, 0 when every event was accepted.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "numbered_event.h"
#include "platform/notification.h"

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: %s FIRST LAST [FILE_SIZE_LIMIT]\n", argv[0]);
    return 2;
  }
  if (argc == 4) {
    const rlimit limit{std::strtoul(argv[3], nullptr, 10), RLIM_INFINITY};
    signal(SIGXFSZ, SIG_IGN);
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
  }
  const long first = std::strtol(argv[1], nullptr, 10);
  const long last = std::strtol(argv[2], nullptr, 10);
  long accepted = 0;
  NotificationSupplier supplier;
  for (long n = first; n <= last; ++n) {
    NotificationEvent event = numbered(n);
    if (supplier.send_notification(event) == 0) ++accepted;
  }
  std::printf("accepted %ld pid %d\n", accepted, static_cast<int>(getpid()));
  std::fflush(stdout);
  while (argc == 3) pause();
  supplier.shutdown();
  return accepted == last - first + 1 ? 0 : 1;
}
