#include "mosquitto_broker.h"

#include <arpa/inet.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace testbed {
namespace {

const int kStartAttempts = 5;  // a port picked at run time may be taken by someone else first
const std::chrono::seconds kStartTimeout(10);

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool accepts(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(port);
  const bool connected = fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  if (fd >= 0) close(fd);
  return connected;
}

}  // namespace

int freeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  const bool bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                     getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  if (fd >= 0) close(fd);
  if (!bound) throw std::runtime_error("cannot bind a loopback port");
  return ntohs(address.sin_port);
}

MosquittoBroker::MosquittoBroker() : MosquittoBroker(Options()) {}

MosquittoBroker::MosquittoBroker(Options options) : m_options(options) {
  std::string pattern = (std::filesystem::temp_directory_path() / "kscdp-mosquitto-XXXXXX").string();
  if (mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
  m_directory = pattern;
  std::string failure;
  for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
    m_port = freeLoopbackPort();
    m_plainPort = m_options.certFile.empty() && m_options.passwordFile.empty() ? m_port : freeLoopbackPort();
    if (tryStart(failure)) return;
  }
  std::filesystem::remove_all(m_directory);
  throw std::runtime_error(failure);
}

MosquittoBroker::~MosquittoBroker() {
  stop();
  std::error_code ignored;
  std::filesystem::remove_all(m_directory, ignored);
}

std::string MosquittoBroker::address() const { return "127.0.0.1:" + std::to_string(m_port); }

void MosquittoBroker::start() {
  std::string failure;
  if (m_pid < 0 && !tryStart(failure)) throw std::runtime_error(failure);
}

void MosquittoBroker::stop() {
  if (m_pid < 0) return;
  kill(m_pid, SIGTERM);  // mosquitto saves its sessions, if it keeps them, and exits
  waitpid(m_pid, nullptr, 0);
  m_pid = -1;
}

bool MosquittoBroker::tryStart(std::string& failure) {
  const std::string config = m_directory + "/mosquitto.conf";
  const std::string log = m_directory + "/mosquitto.log";
  // Started as root, mosquitto switches to the user its configuration names
  // ("mosquitto" by default, who may not write here): name the current one.
  // Nothing caps what waits for a subscriber that is away: a test decides how
  // much that is.
  const passwd* user = getpwuid(getuid());
  const std::string userName = user != nullptr ? user->pw_name : "root";
  std::ofstream file(config, std::ios::trunc);
  file << "per_listener_settings true\nlog_dest file " << log << "\nuser " << userName << "\n";
  file << "listener " << m_port << " 127.0.0.1\n";
  if (!m_options.certFile.empty())
    file << "certfile " << m_options.certFile << "\nkeyfile " << m_options.keyFile << "\n";
  if (!m_options.clientCaFile.empty()) file << "cafile " << m_options.clientCaFile << "\nrequire_certificate true\n";
  file << (m_options.passwordFile.empty() ? "allow_anonymous true\n"
                                          : "allow_anonymous false\npassword_file " + m_options.passwordFile + "\n");
  if (m_plainPort != m_port) file << "listener " << m_plainPort << " 127.0.0.1\nallow_anonymous true\n";
  file << (m_options.keepSessions
               ? "persistence true\npersistence_location " + m_directory + "/\nmax_queued_messages 0\n"
               : "persistence false\n");
  file.close();
  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) {
    // Only async-signal-safe calls until exec: the test process has threads.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent) {
      execl("/usr/sbin/mosquitto", "mosquitto", "-c", config.c_str(), static_cast<char*>(nullptr));
    }
    _exit(127);
  }
  bool exited = m_pid < 0;
  const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
  while (!exited && std::chrono::steady_clock::now() < deadline) {
    exited = waitpid(m_pid, nullptr, WNOHANG) == m_pid;
    if (!exited && accepts(m_port) && accepts(m_plainPort)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (!exited) {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
  }
  m_pid = -1;
  std::ostringstream text;
  text << "mosquitto on port " << m_port << " did not come up:\n" << std::ifstream(log).rdbuf();
  failure = text.str();
  return false;
}

}  // namespace testbed
