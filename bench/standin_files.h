// The files the stand-in platform reads and writes in a benchmark program: a
// master configuration file (KEEPSTONE_CONF) and the log (KSU_LOG_FILE), in a
// temporary directory that goes with the object, with anything else made there.
#ifndef KSCDP_BENCH_STANDIN_FILES_H_
#define KSCDP_BENCH_STANDIN_FILES_H_

#include <string>

namespace bench {

class StandinFiles {
 public:
  // Creates the directory and points both variables into it. The log opens
  // its file on first use: construct this before anything logs. Throws
  // std::runtime_error when the directory cannot be made.
  StandinFiles();
  ~StandinFiles();
  StandinFiles(const StandinFiles&) = delete;
  StandinFiles& operator=(const StandinFiles&) = delete;

  // Replaces the configuration file's text; throws std::runtime_error when
  // it cannot be written.
  void writeConfig(const std::string& text) const;
  // A path in the directory, for further files such as an outbox.
  std::string scratchPath(const std::string& name) const { return m_directory + "/" + name; }

 private:
  std::string configPath() const { return m_directory + "/keepstone.conf"; }
  std::string logPath() const { return m_directory + "/ksu.log"; }

  std::string m_directory;
};

}  // namespace bench

#endif  // KSCDP_BENCH_STANDIN_FILES_H_
