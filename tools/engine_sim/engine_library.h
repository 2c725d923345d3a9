// libkscdp.so as the engine sees it: loaded with dlopen, every entry point
// resolved with dlsym.
#ifndef KSCDP_TOOLS_ENGINE_SIM_ENGINE_LIBRARY_H_
#define KSCDP_TOOLS_ENGINE_SIM_ENGINE_LIBRARY_H_

#include <kscdp/backup_engine.h>

#include <string>

struct EngineLibrary {
  decltype(&::initialize_evlist) initialize_evlist = nullptr;
  decltype(&::insert_vm_into_evlist) insert_vm_into_evlist = nullptr;
  decltype(&::get_element_from_evlist) get_element_from_evlist = nullptr;
  decltype(&::remove_vm_from_evlist) remove_vm_from_evlist = nullptr;
  decltype(&::realign_element_in_vm_list) realign_element_in_vm_list = nullptr;
  decltype(&::delete_evlist) delete_evlist = nullptr;
  decltype(&::insert_into_vm_list) insert_into_vm_list = nullptr;
  decltype(&::get_from_vm_list) get_from_vm_list = nullptr;
  decltype(&::delete_from_vm_list) delete_from_vm_list = nullptr;
  decltype(&::raise_backup_alert) raise_backup_alert = nullptr;
  decltype(&::call_evict_data) call_evict_data = nullptr;
  decltype(&::call_check_eviction_progress) call_check_eviction_progress = nullptr;
  decltype(&::stop_alert_thread) stop_alert_thread = nullptr;
  const char* release = nullptr;  // KS_STATIC_RELEASE_STR
  void* handle = nullptr;

  // Loads `path` and resolves everything. On failure returns false and says
  // why in `error`; nothing stays loaded.
  bool load(const std::string& path, std::string& error);
  void unload();
};

#endif  // KSCDP_TOOLS_ENGINE_SIM_ENGINE_LIBRARY_H_
