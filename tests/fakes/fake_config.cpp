#include "fake_config.h"

#include "platform/ks_master_config.h"

namespace fake {
namespace {
ConfigScript g_script;
int g_reads = 0;
ConfigScript g_loaded;  // what the record points into
std::vector<char*> g_serverPointers;
ks_master_config g_record = {};
}  // namespace

ConfigScript& configScript() { return g_script; }

void resetConfig() {
  g_script = ConfigScript{};
  g_reads = 0;
  g_record = ks_master_config{};
}

}  // namespace fake

extern "C" int KS_read_master_config(void) {
  using namespace fake;
  ++g_reads;
  g_record = ks_master_config{};
  if (g_script.readResult != 0 && g_reads > g_script.successfulReadsFirst) return g_script.readResult;
  g_loaded = g_script;
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

extern "C" ks_master_config* get_master_config_ptr(void) { return &fake::g_record; }
