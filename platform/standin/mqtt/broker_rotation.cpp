#include "platform/standin/mqtt/broker_rotation.h"

#include <algorithm>

namespace standin {

size_t BrokerRotation::entryToTry(const BrokerRoute& route, size_t entries) {
  m_entries = std::max<size_t>(entries, 1);
  if (m_step >= m_entries) m_step = 0;
  const size_t first = route.first % m_entries;
  const size_t offset = route.backwards ? m_entries - m_step : m_step;
  return (first + offset) % m_entries;
}

BrokerRotation::Duration BrokerRotation::attemptFailed() {
  m_step = (m_step + 1) % m_entries;
  if (m_connected) {
    // The entry that was lost counts as the round's first failure.
    m_connected = false;
    m_failedInRound = m_entries == 1 ? 0 : 1;
    return drawnUpTo(m_afterLoss);
  }
  if (++m_failedInRound < m_entries) return Duration::zero();
  m_failedInRound = 0;
  const Duration pause = drawnUpTo(m_bound);
  m_bound = std::min(m_bound * 2, m_longest);
  return pause;
}

void BrokerRotation::connected() {
  m_connected = true;
  m_failedInRound = 0;
  m_bound = m_shortest;
}

BrokerRotation::Duration BrokerRotation::drawnUpTo(Duration bound) {
  std::uniform_int_distribution<Duration::rep> draw(0, std::max<Duration::rep>(bound.count(), 0));
  return Duration(draw(m_random));
}

}  // namespace standin
