// Which entry of the broker list the publisher tries next, and how long it
// pauses first.
#ifndef KSCDP_PLATFORM_STANDIN_MQTT_BROKER_ROTATION_H_
#define KSCDP_PLATFORM_STANDIN_MQTT_BROKER_ROTATION_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>

#include "platform/standin/config/broker_route.h"

namespace standin {

// The publisher goes round the broker list along its route (broker_route.h)
// and stays with the first entry that answers. An entry that does not
// answer gives way at once to the next one; after a whole round failed comes
// a pause, drawn at random up to a bound that doubles from `shortest` up to
// `longest` until a connection is made ("full jitter": the retries of many
// hosts spread out instead of meeting at the same instants). A lost
// connection moves on to the next entry after a random pause of up to
// `afterLoss`, so that the hosts of a node that failed reach the others
// spread over that time. No I/O; one thread's.
class BrokerRotation {
 public:
  using Duration = std::chrono::steady_clock::duration;

  // `seed` starts the pauses' random numbers: distinct for each process.
  BrokerRotation(Duration shortest, Duration longest, Duration afterLoss, uint64_t seed)
      : m_shortest(shortest), m_longest(longest), m_afterLoss(afterLoss), m_bound(shortest), m_random(seed) {}

  // The entry to try of a list of `entries` (at least 1) gone round along
  // `route`. When the list has grown shorter than the steps taken round it
  // since the last connection, the route's first entry.
  size_t entryToTry(const BrokerRoute& route, size_t entries);
  // The attempt failed, or its connection was lost: moves to the next entry
  // and returns the pause before trying it: zero while the round has entries
  // left, else at most the bound of the round (or `afterLoss` for a
  // connection that was made and lost).
  Duration attemptFailed();
  // A connection was made: its loss starts a round afresh, and the bound of
  // the pauses is `shortest` again.
  void connected();

 private:
  Duration drawnUpTo(Duration bound);

  const Duration m_shortest;
  const Duration m_longest;
  const Duration m_afterLoss;
  Duration m_bound;            // of the pause after the next round that fails
  std::mt19937_64 m_random;    // the pauses' draws
  size_t m_step = 0;           // the current entry's place along the route, from its first entry
  size_t m_entries = 1;        // the list's length at the last attempt
  size_t m_failedInRound = 0;  // attempts failed since the last connection or pause
  bool m_connected = false;    // connected() since the last attempt failed
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_MQTT_BROKER_ROTATION_H_
