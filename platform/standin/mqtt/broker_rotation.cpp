#include "platform/standin/mqtt/broker_rotation.h"

#include <algorithm>

namespace standin {

size_t BrokerRotation::entryToTry(size_t entries) {
  m_entries = std::max<size_t>(entries, 1);
  if (m_entry >= m_entries) m_entry = 0;
  return m_entry;
}

BrokerRotation::Duration BrokerRotation::attemptFailed() {
  m_entry = (m_entry + 1) % m_entries;
  if (++m_failedInRound < m_entries) return Duration::zero();
  m_failedInRound = 0;
  const Duration pause = m_pause;
  m_pause = std::min(m_pause * 2, m_longest);
  return pause;
}

void BrokerRotation::connected() {
  m_failedInRound = 0;
  m_pause = m_shortest;
}

}  // namespace standin
