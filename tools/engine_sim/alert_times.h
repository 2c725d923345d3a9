// When each of the engine simulator's own alerts was raised, for a fleet's
// report of the wait from raise to arrival.
#ifndef KSCDP_TOOLS_ENGINE_SIM_ALERT_TIMES_H_
#define KSCDP_TOOLS_ENGINE_SIM_ALERT_TIMES_H_

#include <string>
#include <utility>
#include <vector>

class AlertTimes {
 public:
  // Notes that the alert for `vmId` was raised now (the system's clock).
  void raised(const std::string& vmId);
  // Writes one line "<vm id> <seconds since the epoch, to the nanosecond>"
  // per alert, in the order raised; false when `path` cannot be written.
  bool write(const std::string& path) const;

 private:
  std::vector<std::pair<std::string, long long>> m_raised;  // vm id, nanoseconds since the epoch
};

#endif  // KSCDP_TOOLS_ENGINE_SIM_ALERT_TIMES_H_
