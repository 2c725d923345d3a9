#include "broker_settings.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "config_file.h"

namespace standin {
namespace {

const int kTlsPort = 8883;

}  // namespace

bool readBrokerSettings(BrokerSettings& settings, std::string& error) {
  ConfigValues config;
  const int result = readConfigFile(config);
  if (result != 0) {
    error = "cannot read " + configFilePath() + ": " + std::strerror(result);
    return false;
  }
  BrokerSettings read;
  if (!readBrokerAddress(read.address, error)) return false;
  const std::string tls = setting(config, "broker_tls", "off");
  if (tls != "on" && tls != "off") {
    error = "broker_tls \"" + tls + "\" in " + configFilePath() + " is neither on nor off";
    return false;
  }
  read.tls = tls == "on";
  if (read.tls && setting(config, "broker", "").empty()) read.address.port = kTlsPort;
  read.caFile = setting(config, "broker_ca_file", "");
  read.certFile = setting(config, "broker_cert_file", "");
  read.keyFile = setting(config, "broker_key_file", "");
  read.user = setting(config, "broker_user", "");
  read.passwordFile = setting(config, "broker_password_file", "");
  if (read.certFile.empty() != read.keyFile.empty()) {
    error =
        configFilePath() + " names only one of broker_cert_file and broker_key_file: a client certificate needs both";
    return false;
  }
  if (!read.tls && !(read.caFile.empty() && read.certFile.empty())) {
    error = configFilePath() + " names broker certificates but broker_tls is off: set broker_tls = on";
    return false;
  }
  if (read.user.empty() && !read.passwordFile.empty()) {
    error = configFilePath() + " names broker_password_file without broker_user";
    return false;
  }
  settings = read;
  return true;
}

bool readBrokerPassword(const std::string& path, std::string& password, std::string& error) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    error = "cannot read the broker password file " + path + ": " + std::strerror(errno);
    return false;
  }
  if ((status.st_mode & (S_IROTH | S_IWOTH)) != 0) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
    error = "the broker password file " + path + " is open to other users (mode " + mode +
            "): refused; make it readable by its owner only (chmod 600)";
    return false;
  }
  std::ifstream file(path);
  std::string line;
  if (!file || (!std::getline(file, line) && !file.eof())) {
    error = "cannot read the broker password file " + path;
    return false;
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  password = line;
  return true;
}

}  // namespace standin
