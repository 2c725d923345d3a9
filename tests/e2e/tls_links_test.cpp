// The engine's links to a master that authenticates its hosts: the engine
// simulator, with the real libkscdp.so, against the master simulator over
// HTTPS with client certificates, one configuration a row.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "case_table.h"
#include "master_sim/MasterSimulator.h"
#include "mosquitto_broker.h"
#include "standin_environment.h"

namespace {

// Whether a line of `log` holds `start` and, after it, `text`.
bool loggedLine(const std::string& log, const std::string& start, const std::string& text) {
  for (size_t at = log.find(start); at != std::string::npos; at = log.find(start, at + 1)) {
    const size_t found = log.find(text, at);
    if (found != std::string::npos && log.find('\n', at) > found) return true;
  }
  return false;
}

std::string fileSetting(const char* key, const std::string& dir, const std::string& name) {
  return name.empty() ? "" : std::string(key) + " = " + dir + "/" + name + "\n";
}

TEST(TlsLinks, EvictOnlyWithTheHostsCertificateAndTheConfiguredTrust) {
  const std::string dir = integration::scratchPath("tls-links");
  const std::string store = dir + "/system-store";
  const std::string make = "bash " KSCDP_SCRIPTS_DIR "/make-certs.sh " + dir + " && cd " + dir +
                           " && cp client.key open.key && chmod 644 open.key && ln -s client.pem link.pem && mkdir " +
                           store + " && cp ca.pem " + store + "/ca-certificates.crt && cp ca.pem " + store +
                           " && openssl rehash " + store;
  ASSERT_EQ(std::system(("(" + make + ") >/dev/null 2>&1").c_str()), 0) << make;
  // The system's trust, as libcurl finds it, becomes ca alone.
  const std::string inStore = "unshare -rm sh -c 'mount --bind " + store + " /etc/ssl/certs && exec \"$0\" \"$@\"' ";
  if (std::system((inStore + "true >/dev/null 2>&1").c_str()) != 0) {
    GTEST_SKIP() << "no mount namespace of a user's own here (unshare -rm)";
  }

  master_sim::MasterSimulatorOptions options;
  options.jobSeconds = 0.2;
  options.tlsCertFile = dir + "/master.pem";
  options.tlsKeyFile = dir + "/master.key";
  options.clientCaFile = dir + "/ca.pem";
  master_sim::MasterSimulator master(options);
  ASSERT_TRUE(master.start());
  testbed::MosquittoBroker broker;

  for (const cases::Row& c : cases::read("tls_masters.cases")) {
    SCOPED_TRACE(c[0] + " " + c[1] + " " + c[2]);
    integration::writeConfig("server = 127.0.0.1\nhost_name = tls-host\nrest_url = " + master.url() +
                             "\nksqd_url = " + master.url() + "\nbroker = " + broker.address() + "\noutbox = none\n" +
                             fileSetting("ca_file", dir, c[0]) + fileSetting("cert_file", dir, c[1]) +
                             fileSetting("key_file", dir, c[2]));
    const std::string expected = cases::filled(c[3], {{"{dir}", dir}, {"{url}", master.url()}});
    const size_t logStart = integration::logText().size();
    const size_t requestsBefore = master.requests().size();
    const int status =
        std::system((inStore + KSCDP_ENGINE_SIM_PATH " --library " KSCDP_LIBRARY_PATH
                                                     " --vms 1 --poll-interval 0.1 --timeout 1.5 >/dev/null 2>&1")
                        .c_str());
    const std::string log = integration::logText().substr(logStart);
    if (expected == "done") {
      EXPECT_EQ(status, 0) << log;
      EXPECT_GT(master.requests().size(), requestsBefore + 1);
      continue;
    }
    EXPECT_NE(status, 0);
    EXPECT_TRUE(loggedLine(log, " 16 invoke_ksqd_cct_request: ", expected)) << log;
    if (expected.find("nothing sent") != std::string::npos) {
      EXPECT_EQ(master.requests().size(), requestsBefore);
    }
  }
}

}  // namespace
