// kscdp-fault-proxy: TCP proxies on loopback that play a faulty network on
// command, for the chaos run.
//
//   kscdp-fault-proxy --control FIFO --route NAME PORT HOST:PORT [--route ...]
//
// Each route listens on 127.0.0.1:PORT (0: a free port) and forwards to
// HOST:PORT; its line "route NAME 127.0.0.1:PORT" on stdout says where it
// listens, and "ready" follows the last. Commands come one a line through
// FIFO (made when missing), to the route named, or to every route whose name
// starts with NAME when NAME ends with '*':
//
//   NAME freeze MS          nothing moves for MS milliseconds
//   NAME delay MS FOR_MS    what clients send arrives MS later, for FOR_MS
//   NAME reset COUNT        the next COUNT answers reset their connection
//   NAME refuse MS          open connections are reset, and new ones for MS
//                           milliseconds as soon as they are accepted
//   NAME pass               every fault ends
//
// Runs until SIGTERM or SIGINT; exit status 2 for bad use or a route that
// cannot listen.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "fault_proxy.h"

namespace {

using faultproxy::FaultProxy;
using Routes = std::map<std::string, std::unique_ptr<FaultProxy>>;

int usage(const std::string& why) {
  std::cerr << "kscdp-fault-proxy: " << why
            << "\nusage: kscdp-fault-proxy --control FIFO --route NAME PORT HOST:PORT [--route ...]\n";
  return 2;
}

// Applies one command line; complains on stderr about a bad one.
void applyCommand(const std::string& line, Routes& routes) {
  std::istringstream words(line);
  std::string name;
  std::string verb;
  long first = 0;
  long second = 0;
  if (!(words >> name >> verb)) return;
  if (verb == "freeze" || verb == "reset" || verb == "refuse") words >> first;
  if (verb == "delay") words >> first >> second;
  if (!words && !words.eof()) {
    std::cerr << "kscdp-fault-proxy: bad command: " << line << "\n";
    return;
  }
  const bool prefix = name.back() == '*';
  if (prefix) name.pop_back();
  bool matched = false;
  for (auto& [routeName, proxy] : routes) {
    if (prefix ? routeName.compare(0, name.size(), name) != 0 : routeName != name) continue;
    matched = true;
    if (verb == "freeze") {
      proxy->freeze(std::chrono::milliseconds(first));
    } else if (verb == "delay") {
      proxy->delay(std::chrono::milliseconds(first), std::chrono::milliseconds(second));
    } else if (verb == "reset") {
      proxy->resetAnswers(static_cast<int>(first));
    } else if (verb == "refuse") {
      proxy->refuse(std::chrono::milliseconds(first));
    } else if (verb == "pass") {
      proxy->pass();
    } else {
      std::cerr << "kscdp-fault-proxy: unknown command: " << line << "\n";
      return;
    }
  }
  if (!matched) std::cerr << "kscdp-fault-proxy: no route named " << name << (prefix ? "*" : "") << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  // The proxies' threads inherit the mask: the signals come through signalfd only.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::string control;
  Routes routes;
  try {
    for (int i = 1; i < argc; ++i) {
      const std::string option = argv[i];
      if (option == "--control" && i + 1 < argc) {
        control = argv[++i];
      } else if (option == "--route" && i + 3 < argc) {
        const std::string name = argv[++i];
        const int port = std::atoi(argv[++i]);
        const std::string target = argv[++i];
        const size_t colon = target.rfind(':');
        if (colon == std::string::npos) return usage("a target is HOST:PORT, not " + target);
        routes[name] =
            std::make_unique<FaultProxy>(port, target.substr(0, colon), std::atoi(target.c_str() + colon + 1));
        std::cout << "route " << name << " 127.0.0.1:" << routes[name]->port() << "\n";
      } else {
        return usage("unknown or incomplete option " + option);
      }
    }
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n";
    return 2;
  }
  if (control.empty() || routes.empty()) return usage("a control FIFO and at least one route are needed");
  if (mkfifo(control.c_str(), 0600) != 0 && errno != EEXIST) {
    std::cerr << "kscdp-fault-proxy: cannot make " << control << ": " << std::strerror(errno) << "\n";
    return 2;
  }
  // Open for writing too, so that the FIFO never reports an end when a writer leaves.
  const int fifo = open(control.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  const int signals = signalfd(-1, &stopSignals, SFD_CLOEXEC);
  if (fifo < 0 || signals < 0) {
    std::cerr << "kscdp-fault-proxy: cannot open " << control << ": " << std::strerror(errno) << "\n";
    return 2;
  }
  std::cout << "ready" << std::endl;

  std::string pending;
  for (;;) {
    pollfd fds[2] = {{fifo, POLLIN, 0}, {signals, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) continue;
    if (fds[1].revents != 0) break;
    char buffer[4096];
    const ssize_t got = read(fifo, buffer, sizeof buffer);
    if (got <= 0) continue;
    pending.append(buffer, static_cast<size_t>(got));
    for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1))
      applyCommand(pending.substr(0, end), routes);
  }
  close(fifo);
  close(signals);
  return 0;
}
