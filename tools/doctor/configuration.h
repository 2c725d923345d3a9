// keepstone.conf as the library reads it (same path rule, same parser), and
// the check of it.
#ifndef KSCDP_TOOLS_DOCTOR_CONFIGURATION_H_
#define KSCDP_TOOLS_DOCTOR_CONFIGURATION_H_

#include <string>

#include "check_result.h"
#include "platform/standin/config/config_file.h"

namespace doctor {

// The snapshot the stand-ins read, with what the checks ask of it.
struct Configuration : standin::ConfigSnapshot {
  // The first "server" line's value; empty when there is none.
  std::string master() const;
  // Read, parsed and naming a master server: what every network check needs.
  bool namesMaster() const;
};

Configuration readConfiguration();

CheckResult checkConfiguration(const Configuration& configuration);

}  // namespace doctor

#endif  // KSCDP_TOOLS_DOCTOR_CONFIGURATION_H_
