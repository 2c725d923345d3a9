#include "platform/standin/config/broker_settings.h"

#include <unistd.h>

#include <climits>
#include <vector>

#include "platform/standin/config/protocol.h"
#include "platform/standin/config/service_url.h"
#include "platform/standin/files/private_file.h"

namespace standin {
namespace {

// "broker", else the first master server on the default port; false, with
// why in `error`, when neither gives an address.
bool brokerAddresses(const ConfigSnapshot& config, int defaultPort, std::vector<BrokerAddress>& addresses,
                     std::string& error) {
  std::string text = setting(config.values, "broker", std::string());
  if (text.empty()) {
    const std::vector<std::string>& servers = config.values.servers;
    if (servers.empty() || servers[0].empty()) {
      error = config.path + " names neither a broker nor a master server";
      return false;
    }
    text = hostAndPort(servers[0], defaultPort);
  }
  std::string badEntry;
  if (parseBrokerList(text, addresses, badEntry)) return true;
  if (badEntry == text) {
    error = "broker \"" + text + "\" in " + config.path + " is not host:port";
  } else if (badEntry.empty()) {
    error = "broker \"" + text + "\" in " + config.path + " has an empty entry: write host:port, host:port, ...";
  } else {
    error = "broker \"" + text + "\" in " + config.path + ": entry \"" + badEntry + "\" is not host:port";
  }
  return false;
}

// "host_name" when set, else the system's host name (empty when it cannot be
// had: a route all the same, if not a spread one).
std::string spreadName(const ConfigValues& values) {
  if (values.hasHostName && !values.hostName.empty()) return values.hostName;
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof name - 1) != 0) return std::string();
  return name;
}

}  // namespace

bool brokerSettings(const ConfigSnapshot& config, BrokerSettings& settings, std::string& error) {
  if (config.readResult != 0) {
    error = config.problem();
    return false;
  }
  const ConfigValues& values = config.values;
  BrokerSettings read;
  const std::string tls = setting(values, "broker_tls", "off");
  if (tls != "on" && tls != "off") {
    error = "broker_tls \"" + tls + "\" in " + config.path + " is neither on nor off";
    return false;
  }
  read.tls = tls == "on";
  if (!brokerAddresses(config, read.tls ? kBrokerTlsPort : kBrokerPort, read.addresses, error)) return false;
  const std::string order = setting(values, "broker_order", "written");
  if (order != "written" && order != "spread") {
    error = "broker_order \"" + order + "\" in " + config.path + " is neither written nor spread";
    return false;
  }
  read.spread = order == "spread";
  if (read.spread) read.hostName = spreadName(values);
  read.caFile = setting(values, "broker_ca_file", "");
  read.certFile = setting(values, "broker_cert_file", "");
  read.keyFile = setting(values, "broker_key_file", "");
  read.user = setting(values, "broker_user", "");
  read.passwordFile = setting(values, "broker_password_file", "");
  if (!read.tls && !(read.user.empty() && read.passwordFile.empty())) {
    error = config.path +
            " names broker credentials but broker_tls is off: a password never travels in the clear; set broker_tls "
            "= on";
    return false;
  }
  if (read.certFile.empty() != read.keyFile.empty()) {
    error = config.path + " names only one of broker_cert_file and broker_key_file: a client certificate needs both";
    return false;
  }
  if (!read.tls && !(read.caFile.empty() && read.certFile.empty())) {
    error = config.path + " names broker certificates but broker_tls is off: set broker_tls = on";
    return false;
  }
  if (read.user.empty() && !read.passwordFile.empty()) {
    error = config.path + " names broker_password_file without broker_user";
    return false;
  }
  settings = read;
  return true;
}

BrokerRoute brokerRoute(const BrokerSettings& settings) {
  return settings.spread ? spreadRoute(settings.hostName, settings.addresses.size()) : writtenRoute();
}

bool readBrokerPassword(const std::string& path, std::string& password, std::string& error) {
  std::string text;
  if (!readCheckedFile(path, "the broker password file", kLargestSecretFile, true, text, error)) return false;
  std::string line = text.substr(0, text.find('\n'));
  if (!line.empty() && line.back() == '\r') line.pop_back();
  password = line;
  return true;
}

}  // namespace standin
