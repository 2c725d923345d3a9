#include "mosquitto_broker.h"

#include <arpa/inet.h>
#include <pwd.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace testbed {
namespace {

const char kBrokerProgram[] = "/usr/sbin/mosquitto";
const int kStartAttempts = 5;  // a port picked at run time may be taken by someone else first
const std::chrono::seconds kStartTimeout(10);
const std::chrono::seconds kStopTimeout(10);
const std::chrono::milliseconds kPollInterval(5);

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Started as root, mosquitto switches to the user named in its configuration
// (by default "mosquitto", who may not write to our directory); naming the
// current user keeps it as it is.
std::string currentUser() {
  const passwd* entry = getpwuid(getuid());
  return entry != nullptr ? entry->pw_name : "root";
}

bool accepts(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const sockaddr_in address = loopback(port);
  const bool connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

// Reaps `pid` if it has exited, within `timeout`.
bool reaped(pid_t pid, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const pid_t result = waitpid(pid, nullptr, WNOHANG);
    if (result == pid || (result < 0 && errno == ECHILD)) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPollInterval);
  }
}

}  // namespace

int freeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("socket failed");
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    close(fd);
    throw std::runtime_error("cannot bind a loopback port");
  }
  close(fd);
  return ntohs(address.sin_port);
}

MosquittoBroker::MosquittoBroker() : MosquittoBroker(Options()) {}

MosquittoBroker::MosquittoBroker(Options options) : options_(options) {
  std::string pattern = (std::filesystem::temp_directory_path() / "kscdp-mosquitto-XXXXXX").string();
  if (mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
  directory_ = pattern;
  std::string failure;
  for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
    port_ = freeLoopbackPort();
    writeConfig();
    if (tryStart(failure)) return;
  }
  std::filesystem::remove_all(directory_);
  throw std::runtime_error(failure);
}

MosquittoBroker::~MosquittoBroker() {
  stop();
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

std::string MosquittoBroker::address() const { return "127.0.0.1:" + std::to_string(port_); }

void MosquittoBroker::start() {
  if (pid_ > 0) return;
  std::string failure;
  if (!tryStart(failure)) throw std::runtime_error(failure);
}

void MosquittoBroker::stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  if (!reaped(pid_, kStopTimeout)) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = -1;
}

void MosquittoBroker::writeConfig() const {
  std::ofstream config(directory_ + "/mosquitto.conf", std::ios::trunc);
  config << "listener " << port_ << " 127.0.0.1\n"
         << "allow_anonymous true\n"
         << "user " << currentUser() << "\n"
         << "log_dest file " << directory_ << "/mosquitto.log\n";
  if (options_.keepSessions) {
    // No cap on what waits for a subscriber that is away: a test decides how much that is.
    config << "persistence true\n"
           << "persistence_location " << directory_ << "/\n"
           << "max_queued_messages 0\n";
  } else {
    config << "persistence false\n";
  }
}

bool MosquittoBroker::tryStart(std::string& failure) {
  const std::string configPath = directory_ + "/mosquitto.conf";
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) {
    failure = "fork failed";
    return false;
  }
  if (pid == 0) {
    // Only async-signal-safe calls until exec: the test process has threads.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    execl(kBrokerProgram, "mosquitto", "-c", configPath.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  pid_ = pid;
  const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      failure = "mosquitto on port " + std::to_string(port_) + " exited at start:\n" + logText();
      return false;
    }
    if (accepts(port_)) return true;
    std::this_thread::sleep_for(kPollInterval);
  }
  stop();
  failure = "mosquitto on port " + std::to_string(port_) + " did not accept connections within 10 s:\n" + logText();
  return false;
}

std::string MosquittoBroker::logText() const {
  std::ifstream log(directory_ + "/mosquitto.log");
  std::ostringstream text;
  text << log.rdbuf();
  return text.str();
}

}  // namespace testbed
