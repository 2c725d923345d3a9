#include "engine_library.h"

#include <dlfcn.h>

namespace {

template <typename Function>
bool resolve(void* handle, const char* name, Function& function, std::string& error) {
  dlerror();
  void* symbol = dlsym(handle, name);
  if (symbol == nullptr) {
    const char* reason = dlerror();
    error = std::string("missing symbol ") + name + (reason != nullptr ? std::string(": ") + reason : "");
    return false;
  }
  function = reinterpret_cast<Function>(symbol);
  return true;
}

}  // namespace

bool EngineLibrary::load(const std::string& path, std::string& error) {
  handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* reason = dlerror();
    error = "cannot load " + path + ": " + (reason != nullptr ? reason : "unknown error");
    return false;
  }
  const bool complete = resolve(handle, "initialize_evlist", initialize_evlist, error) &&
                        resolve(handle, "insert_vm_into_evlist", insert_vm_into_evlist, error) &&
                        resolve(handle, "get_element_from_evlist", get_element_from_evlist, error) &&
                        resolve(handle, "remove_vm_from_evlist", remove_vm_from_evlist, error) &&
                        resolve(handle, "realign_element_in_vm_list", realign_element_in_vm_list, error) &&
                        resolve(handle, "delete_evlist", delete_evlist, error) &&
                        resolve(handle, "insert_into_vm_list", insert_into_vm_list, error) &&
                        resolve(handle, "get_from_vm_list", get_from_vm_list, error) &&
                        resolve(handle, "delete_from_vm_list", delete_from_vm_list, error) &&
                        resolve(handle, "raise_backup_alert", raise_backup_alert, error) &&
                        resolve(handle, "call_evict_data", call_evict_data, error) &&
                        resolve(handle, "call_check_eviction_progress", call_check_eviction_progress, error) &&
                        resolve(handle, "stop_alert_thread", stop_alert_thread, error) &&
                        resolve(handle, "KS_STATIC_RELEASE_STR", release, error);
  if (!complete) {
    error = path + ": " + error;
    unload();
  }
  return complete;
}

void EngineLibrary::unload() {
  if (handle != nullptr) dlclose(handle);
  *this = EngineLibrary{};
}
