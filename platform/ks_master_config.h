// Master configuration library of the product.
//
// KS_read_master_config() (re)loads the host's master configuration into one
// process-wide record; get_master_config_ptr() returns that record. The record
// and everything it points to belong to the configuration library and stay
// valid until the next KS_read_master_config() call.
#ifndef KSCDP_PLATFORM_KS_MASTER_CONFIG_H_
#define KSCDP_PLATFORM_KS_MASTER_CONFIG_H_

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ks_master_config {
  // Configured servers in file order, terminated by a null entry; the first
  // entry is the master server. Null when no configuration has been loaded.
  char** server_list;
  int server_count;
  // This host's name in the backup domain. Null when not configured.
  char* host_name;
} ks_master_config;

// Returns 0 on success. Otherwise a non-zero error code, and the record is
// left empty (no server list, no host name).
int KS_read_master_config(void);

// Never null.
ks_master_config* get_master_config_ptr(void);

#ifdef __cplusplus
}
#endif

#endif  // KSCDP_PLATFORM_KS_MASTER_CONFIG_H_
