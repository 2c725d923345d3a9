// A process of its own that raises numbered events through the stand-in
// NotificationSupplier, for tests about what outlives it:
//
//   kscdp_alert_raiser FIRST LAST
//
// Event n has the message key "eventlog.omra.ksu.cdp.fullsync.done" and the
// one attribute "seq" = n. Prints "accepted <count> pid <pid>" once every
// event was handed over, then waits to be killed.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/notification.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s FIRST LAST\n", argv[0]);
    return 2;
  }
  const long first = std::strtol(argv[1], nullptr, 10);
  const long last = std::strtol(argv[2], nullptr, 10);
  long accepted = 0;
  NotificationSupplier supplier;
  for (long n = first; n <= last; ++n) {
    NotificationEvent event{1,
                            "Keepstone",
                            "CDP",
                            "CDP Backup Engine",
                            "LOW",
                            "INFO",
                            "eventlog.omra.ksu.cdp.fullsync.done",
                            {{"seq", std::to_string(n)}}};
    if (supplier.send_notification(event) == 0) ++accepted;
  }
  std::printf("accepted %ld pid %d\n", accepted, static_cast<int>(getpid()));
  std::fflush(stdout);
  for (;;) pause();
}
