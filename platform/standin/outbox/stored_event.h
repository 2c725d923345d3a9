// An event as the outbox holds it.
#ifndef KSCDP_PLATFORM_STANDIN_OUTBOX_STORED_EVENT_H_
#define KSCDP_PLATFORM_STANDIN_OUTBOX_STORED_EVENT_H_

#include <cstdint>
#include <string>

namespace standin {

struct StoredEvent {
  int64_t id;  // in the outbox; a larger id is a later event; 0: in memory only
  std::string payload;
  int64_t raised;  // when it was accepted, in seconds since the epoch; 0: unknown (an older release's)
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_OUTBOX_STORED_EVENT_H_
