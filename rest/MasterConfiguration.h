// The host's master configuration, read and copied in one guarded step.
//
// KS_read_master_config() refills one process-wide record and
// get_master_config_ptr() points into it, so a read on one thread frees what
// another thread is still copying. Every reader in the library goes through
// readMasterConfiguration(): it reads and copies under one lock, held for
// nothing else, and the copy it returns is the caller's own.
#ifndef KSCDP_REST_MASTERCONFIGURATION_H_
#define KSCDP_REST_MASTERCONFIGURATION_H_

#include <string>

// Everything but readResult stays empty when the read failed.
struct MasterConfiguration {
  int readResult = 0;            // KS_read_master_config(): 0 on success
  bool hasMasterServer = false;  // the server list has a first entry
  std::string masterServer;      // that entry
  bool hasHostName = false;      // the record names this host
  std::string hostName;
};

// Reads the master configuration afresh and copies what the library uses.
// Thread-safe.
MasterConfiguration readMasterConfiguration();

#endif  // KSCDP_REST_MASTERCONFIGURATION_H_
