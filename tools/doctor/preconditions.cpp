#include "checks.h"

namespace doctor {

const char kUnresolvedMasterReason[] = "needs the master's name to resolve";
const char kNoMasterReason[] = "needs a configuration file that names a master server";

bool isUnresolvedMaster(const std::string& host, const Configuration& configuration, bool masterResolves) {
  return !masterResolves && host == configuration.master();
}

}  // namespace doctor
