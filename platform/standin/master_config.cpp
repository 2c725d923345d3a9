// The process-wide master configuration record, rebuilt from the file on
// every KS_read_master_config() call.
#include <string>
#include <vector>

#include "config_file.h"
#include "platform/ks_master_config.h"
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
  standin::ConfigValues values;
  const int result = standin::readConfigFile(values);
  port::MutexLock lock(g_mutex);
  g_record = ks_master_config{};
  g_loaded = LoadedConfig{};
  if (result != 0) return result;
  g_loaded.servers = std::move(values.servers);
  for (std::string& server : g_loaded.servers) g_loaded.serverPointers.push_back(&server[0]);
  g_loaded.serverPointers.push_back(nullptr);
  g_loaded.hostName = values.hostName;
  g_record.server_list = g_loaded.serverPointers.data();
  g_record.server_count = static_cast<int>(g_loaded.servers.size());
  g_record.host_name = values.hasHostName ? &g_loaded.hostName[0] : nullptr;
  return 0;
}

extern "C" ks_master_config* get_master_config_ptr(void) { return &g_record; }
