#include "fake_config.h"

#include "platform/ks_master_config.h"

namespace {
int g_reads = 0;
fake::Config g_loaded;  // what the record points into
std::vector<char*> g_serverPointers;
ks_master_config g_record = {};
}  // namespace

extern "C" int KS_read_master_config(void) {
  const fake::Config& script = fake::config;
  ++g_reads;
  g_record = ks_master_config{};
  if (script.readResult != 0 && g_reads > script.successfulReadsFirst) return script.readResult;
  g_loaded = script;
  g_serverPointers.clear();
  for (std::string& server : g_loaded.servers) g_serverPointers.push_back(&server[0]);
  g_serverPointers.push_back(nullptr);
  if (g_loaded.hasServerList) {
    g_record.server_list = g_serverPointers.data();
    g_record.server_count = static_cast<int>(g_loaded.servers.size());
  }
  if (g_loaded.hasHostName) g_record.host_name = &g_loaded.hostName[0];
  return 0;
}

void fake::resetConfig() {
  config = Config{};
  g_reads = 0;
}

extern "C" ks_master_config* get_master_config_ptr(void) { return &g_record; }
