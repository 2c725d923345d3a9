#include "http_settings.h"

#include <sys/stat.h>

#include "config_file.h"
#include "port/mutex.h"

namespace standin {
namespace {

struct FileIdentity {
  std::string path;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec modified{};

  bool operator==(const FileIdentity& other) const {
    return path == other.path && device == other.device && inode == other.inode && size == other.size &&
           modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec;
  }
};

// False when the file cannot be looked at: then nothing is remembered.
bool identify(FileIdentity& identity) {
  struct stat status {};
  identity.path = configFilePath();
  if (stat(identity.path.c_str(), &status) != 0) return false;
  identity.device = status.st_dev;
  identity.inode = status.st_ino;
  identity.size = status.st_size;
  identity.modified = status.st_mtim;
  return true;
}

HttpSettings parseHttpSettings() {
  ConfigValues config;
  readConfigFile(config);
  HttpSettings settings;
  settings.restUrl = setting(config, "rest_url", "");
  settings.curl.caFile = setting(config, "ca_file", "");
  settings.curl.timeoutSeconds = httpTimeoutSeconds(config);
  return settings;
}

port::Mutex g_mutex;
bool g_known GUARDED_BY(g_mutex) = false;  // g_settings hold what g_identity's file said
FileIdentity g_identity GUARDED_BY(g_mutex);
HttpSettings g_settings GUARDED_BY(g_mutex);

}  // namespace

HttpSettings currentHttpSettings() {
  FileIdentity identity;
  if (!identify(identity)) return parseHttpSettings();
  {
    port::MutexLock lock(g_mutex);
    if (g_known && identity == g_identity) return g_settings;
  }
  // Parsed outside the lock; a file changed since stat() is seen by the next
  // request, whose stat() differs again.
  HttpSettings settings = parseHttpSettings();
  port::MutexLock lock(g_mutex);
  g_identity = identity;
  g_settings = settings;
  g_known = true;
  return settings;
}

}  // namespace standin
