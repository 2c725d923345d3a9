// keepstone.conf as the library reads it (same path rule, same parser), and
// the check of it.
#ifndef KSCDP_TOOLS_DOCTOR_CONFIGURATION_H_
#define KSCDP_TOOLS_DOCTOR_CONFIGURATION_H_

#include <string>

#include "check_result.h"
#include "platform/standin/config_file.h"

namespace doctor {

struct Configuration {
  std::string path;
  int readResult = 0;            // 0, the errno of a failed read, or 22 for a bad line
  int badLine = 0;               // with 22: the number of the first bad line
  standin::ConfigValues values;  // empty unless readResult is 0

  // The first "server" line's value; empty when there is none.
  std::string master() const;
  // Read, parsed and naming a master server: what every network check needs.
  bool namesMaster() const;
};

Configuration readConfiguration();

CheckResult checkConfiguration(const Configuration& configuration);

}  // namespace doctor

#endif  // KSCDP_TOOLS_DOCTOR_CONFIGURATION_H_
