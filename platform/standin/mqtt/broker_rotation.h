// Which entry of the broker list the publisher tries next, and how long it
// pauses first.
#ifndef KSCDP_PLATFORM_STANDIN_MQTT_BROKER_ROTATION_H_
#define KSCDP_PLATFORM_STANDIN_MQTT_BROKER_ROTATION_H_

#include <chrono>
#include <cstddef>

namespace standin {

// The publisher connects to the first entry that answers, in the order
// written. An entry that does not answer, or whose connection is lost, gives
// way at once to the next one (wrapping round); the pause between attempts
// comes only after a whole round failed, and doubles from `shortest` up to
// `longest` until a connection is made. No I/O; one thread's.
class BrokerRotation {
 public:
  using Duration = std::chrono::steady_clock::duration;

  BrokerRotation(Duration shortest, Duration longest) : m_shortest(shortest), m_longest(longest), m_pause(shortest) {}

  // The entry to try of a list of `entries` (at least 1), which may be
  // shorter than at the last attempt: then the first.
  size_t entryToTry(size_t entries);
  // The attempt failed, or its connection was lost: moves to the next entry
  // and returns the pause before trying it (zero while the round has entries
  // left).
  Duration attemptFailed();
  // A connection was made: the next failure starts a round afresh, with the
  // shortest pause.
  void connected();

 private:
  const Duration m_shortest;
  const Duration m_longest;
  Duration m_pause;            // after the next round that fails
  size_t m_entry = 0;          // the entry of the current or next attempt
  size_t m_entries = 1;        // the list's length at the last attempt
  size_t m_failedInRound = 0;  // attempts failed since the last connection or pause
};

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_MQTT_BROKER_ROTATION_H_
