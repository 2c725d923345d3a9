// A process of its own that raises numbered events through the stand-in
// NotificationSupplier, for tests about what outlives it:
//
//   kscdp_alert_raiser FIRST LAST [--file-size-limit BYTES] [--then-wait]
//
// Event n has the message key "eventlog.omra.ksu.cdp.fullsync.done" and the
// one attribute "seq" = n. Prints "accepted <count> pid <pid>" once every event was
// handed over; then waits to be killed (--then-wait) or shuts the supplier
// down and exits 0 when every event was accepted. With a file-size limit,
// writes beyond it fail with EFBIG, as on a full disk.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/notification.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s FIRST LAST [--file-size-limit BYTES] [--then-wait]\n", argv[0]);
    return 2;
  }
  const long first = std::strtol(argv[1], nullptr, 10);
  const long last = std::strtol(argv[2], nullptr, 10);
  bool wait = false;
  for (int i = 3; i < argc; ++i) {
    if (std::strcmp(argv[i], "--then-wait") == 0) {
      wait = true;
    } else if (std::strcmp(argv[i], "--file-size-limit") == 0 && i + 1 < argc) {
      const rlimit limit{std::strtoul(argv[++i], nullptr, 10), RLIM_INFINITY};
      signal(SIGXFSZ, SIG_IGN);
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    }
  }
  long accepted = 0;
  {
    NotificationSupplier supplier;
    for (long n = first; n <= last; ++n) {
      NotificationEvent event{1, "Keepstone", "CDP", "CDP Backup Engine", "LOW", "INFO",
                              "eventlog.omra.ksu.cdp.fullsync.done", {{"seq", std::to_string(n)}}};
      if (supplier.send_notification(event) == 0) ++accepted;
    }
    std::printf("accepted %ld pid %d\n", accepted, static_cast<int>(getpid()));
    std::fflush(stdout);
    while (wait) pause();
    supplier.shutdown();
  }
  return accepted == last - first + 1 ? 0 : 1;
}
