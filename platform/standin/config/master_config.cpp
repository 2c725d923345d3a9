// The process-wide master configuration record, rebuilt on every
// KS_read_master_config() call from the configuration file as it stands.
#include <string>
#include <vector>

#include "platform/ks_master_config.h"
#include "platform/standin/config/config_file.h"
#include "port/mutex.h"

namespace {

struct LoadedConfig {
  std::vector<std::string> servers;
  std::vector<char*> serverPointers;  // into `servers`, null-terminated
  std::string hostName;
};

// Guards the refill of the record. Readers of the record are the caller's
// to serialise with a refill: the record stays valid until the next read.
port::Mutex g_mutex;
LoadedConfig g_loaded GUARDED_BY(g_mutex);           // backs the pointers in g_record
ks_master_config g_record GUARDED_BY(g_mutex) = {};  // empty until a successful read

}  // namespace

extern "C" int KS_read_master_config(void) {
  const std::shared_ptr<const standin::ConfigSnapshot> config = standin::currentConfig();
  const standin::ConfigValues& values = config->values;
  port::MutexLock lock(g_mutex);
  g_record = ks_master_config{};
  g_loaded = LoadedConfig{};
  if (config->readResult != 0) return config->readResult;
  g_loaded.servers = values.servers;
  for (std::string& server : g_loaded.servers) g_loaded.serverPointers.push_back(&server[0]);
  g_loaded.serverPointers.push_back(nullptr);
  g_loaded.hostName = values.hostName;
  g_record.server_list = g_loaded.serverPointers.data();
  g_record.server_count = static_cast<int>(g_loaded.servers.size());
  g_record.host_name = values.hasHostName ? &g_loaded.hostName[0] : nullptr;
  return 0;
}

extern "C" ks_master_config* get_master_config_ptr(void) { return &g_record; }
