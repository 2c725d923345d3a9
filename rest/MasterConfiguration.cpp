#include "rest/MasterConfiguration.h"

#include "platform/ks_master_config.h"
#include "port/mutex.h"

namespace {

// Guards the process-wide record from its refill to the end of its copy.
port::Mutex g_configMutex;

}  // namespace

MasterConfiguration readMasterConfiguration() {
  MasterConfiguration copy;
  port::MutexLock lock(g_configMutex);
  copy.readResult = KS_read_master_config();
  // After a failed read the record may hold anything: nothing of it is read.
  if (copy.readResult != 0) return copy;
  const ks_master_config* config = get_master_config_ptr();
  if (config == nullptr) return copy;
  if (config->server_list != nullptr && config->server_list[0] != nullptr) {
    copy.hasMasterServer = true;
    copy.masterServer = config->server_list[0];
  }
  if (config->host_name != nullptr) {
    copy.hasHostName = true;
    copy.hostName = config->host_name;
  }
  return copy;
}
