#include "fault_proxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <list>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace faultproxy {
namespace {

const size_t kChunk = 65536;
const size_t kMostBuffered = 4 * kChunk;  // per direction: a slow side slows the other
const std::chrono::milliseconds kLongestPoll(200);

using Clock = std::chrono::steady_clock;

std::runtime_error systemError(const std::string& what) {
  return std::runtime_error("fault proxy: " + what + ": " + std::strerror(errno));
}

sockaddr_in loopback(const std::string& host, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1)
    throw std::runtime_error("fault proxy: not an IPv4 address: " + host);
  return address;
}

// Closes with a reset rather than a FIN: the peer's next read fails.
void closeWithReset(int fd) {
  const linger now{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  close(fd);
}

struct Chunk {
  Clock::time_point due;
  std::string bytes;
};

size_t bufferedIn(const std::deque<Chunk>& chunks) {
  size_t size = 0;
  for (const Chunk& chunk : chunks) size += chunk.bytes.size();
  return size;
}

// One client connection and its connection to the target. Bytes the client
// sent wait in toTarget; the target's wait in toClient until due.
struct Link {
  int client = -1;
  int target = -1;
  bool targetConnected = false;
  bool targetEnded = false;  // the target closed: the link ends once toClient is written
  std::deque<Chunk> toTarget;
  std::deque<Chunk> toClient;
  bool dead = false;

  void end(bool reset) {
    for (int fd : {client, target}) {
      if (fd < 0) continue;
      if (reset) {
        closeWithReset(fd);
      } else {
        close(fd);
      }
    }
    client = target = -1;
    dead = true;
  }
};

// Writes what it can of `bytes` to `fd` and drops what was written; false
// when the peer is gone.
bool writeSome(int fd, std::string& bytes) {
  const ssize_t written = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (written < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  bytes.erase(0, static_cast<size_t>(written));
  return true;
}

// Writes the chunks of `chunks` that are due to `fd`, oldest first; false
// when the peer is gone.
bool writeDue(int fd, std::deque<Chunk>& chunks, Clock::time_point now) {
  while (!chunks.empty() && chunks.front().due <= now) {
    std::string& bytes = chunks.front().bytes;
    if (!writeSome(fd, bytes)) return false;
    if (!bytes.empty()) return true;
    chunks.pop_front();
  }
  return true;
}

// Reads what is there into `bytes`: 1 read, 0 end of stream, -1 failure
// (a reset), 2 nothing yet.
int readSome(int fd, std::string& bytes) {
  char buffer[kChunk];
  const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
  if (got > 0) {
    bytes.assign(buffer, static_cast<size_t>(got));
    return 1;
  }
  if (got == 0) return 0;
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 2 : -1;
}

}  // namespace

FaultProxy::FaultProxy(int listenPort, const std::string& targetHost, int targetPort)
    : m_targetHost(targetHost), m_targetPort(targetPort) {
  loopback(targetHost, targetPort);  // checks the address now rather than per connection
  m_listenFd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (m_listenFd < 0) throw systemError("socket");
  const int one = 1;
  setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address = loopback("127.0.0.1", listenPort);
  socklen_t length = sizeof address;
  if (bind(m_listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(m_listenFd, 128) != 0 ||
      getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    const std::runtime_error error = systemError("cannot listen on port " + std::to_string(listenPort));
    close(m_listenFd);
    throw error;
  }
  m_port = ntohs(address.sin_port);
  m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_wakeFd < 0) {
    const std::runtime_error error = systemError("eventfd");
    close(m_listenFd);
    throw error;
  }
  try {
    m_thread = std::thread(&FaultProxy::run, this);
  } catch (const std::system_error&) {
    close(m_wakeFd);
    close(m_listenFd);
    throw;
  }
}

FaultProxy::~FaultProxy() {
  {
    port::MutexLock lock(m_mutex);
    m_stopping = true;
  }
  wake();
  m_thread.join();
  close(m_wakeFd);
  close(m_listenFd);
}

void FaultProxy::freeze(Duration duration) {
  {
    port::MutexLock lock(m_mutex);
    m_faults.frozenUntil = Clock::now() + duration;
  }
  wake();
}

void FaultProxy::delay(Duration latency, Duration duration) {
  {
    port::MutexLock lock(m_mutex);
    m_faults.latency = latency;
    m_faults.delayedUntil = Clock::now() + duration;
  }
  wake();
}

void FaultProxy::resetAnswers(int count) {
  {
    port::MutexLock lock(m_mutex);
    m_faults.resetsLeft = count;
  }
  wake();
}

void FaultProxy::refuse(Duration duration) {
  {
    port::MutexLock lock(m_mutex);
    m_faults.refusedUntil = Clock::now() + duration;
    ++m_faults.refusals;
  }
  wake();
}

void FaultProxy::pass() {
  {
    port::MutexLock lock(m_mutex);
    m_faults = Faults();
  }
  wake();
}

FaultProxy::Faults FaultProxy::faults(bool takeReset) {
  port::MutexLock lock(m_mutex);
  Faults now = m_faults;
  if (takeReset && m_faults.resetsLeft > 0) --m_faults.resetsLeft;
  return now;
}

void FaultProxy::wake() {
  const uint64_t one = 1;
  while (write(m_wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void FaultProxy::run() {
  std::list<Link> links;
  uint64_t refusalsDone = 0;
  for (;;) {
    {
      port::MutexLock lock(m_mutex);
      if (m_stopping) break;
    }
    const Clock::time_point now = Clock::now();
    const Faults fault = faults();
    if (fault.refusals != refusalsDone) {
      for (Link& link : links) link.end(true);
      links.clear();
      refusalsDone = fault.refusals;
    }
    Clock::time_point wakeAt = now + kLongestPoll;
    std::vector<pollfd> fds{{m_wakeFd, POLLIN, 0}};
    const bool frozen = now < fault.frozenUntil;
    if (frozen) {
      wakeAt = std::min(wakeAt, fault.frozenUntil);
    } else {
      fds.push_back({m_listenFd, POLLIN, 0});
      for (Link& link : links) {
        const bool answerDue = !link.toClient.empty() && link.toClient.front().due <= now;
        if (!link.toClient.empty() && !answerDue) wakeAt = std::min(wakeAt, link.toClient.front().due);
        const bool clientReadable = bufferedIn(link.toTarget) < kMostBuffered;
        fds.push_back({link.client, static_cast<short>((clientReadable ? POLLIN : 0) | (answerDue ? POLLOUT : 0)), 0});
        const bool targetReadable = !link.targetEnded && bufferedIn(link.toClient) < kMostBuffered;
        const bool targetWritable = !link.targetConnected || !link.toTarget.empty();
        // Once the target has closed, only its answers wait: a closed socket would always be ready.
        fds.push_back({link.targetEnded ? -1 : link.target,
                       static_cast<short>((targetReadable ? POLLIN : 0) | (targetWritable ? POLLOUT : 0)), 0});
      }
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(wakeAt - now).count();
    if (poll(fds.data(), fds.size(), static_cast<int>(std::max<decltype(wait)>(wait, 0))) < 0) continue;
    if (fds[0].revents != 0) {
      uint64_t count;
      while (read(m_wakeFd, &count, sizeof count) > 0) {
      }
    }
    if (frozen) continue;

    const Clock::time_point after = Clock::now();
    size_t at = 2;
    for (Link& link : links) {
      const short clientReady = fds[at++].revents;
      const short targetReady = fds[at++].revents;
      if (!link.targetConnected && (targetReady & (POLLOUT | POLLERR | POLLHUP)) != 0) {
        int error = 0;
        socklen_t length = sizeof error;
        getsockopt(link.target, SOL_SOCKET, SO_ERROR, &error, &length);
        if (error != 0) {
          link.end(true);  // the client sees the target refuse it
          continue;
        }
        link.targetConnected = true;
      }
      if ((clientReady & (POLLIN | POLLERR | POLLHUP)) != 0) {
        std::string bytes;
        const int got = readSome(link.client, bytes);
        if (got <= 0) {
          link.end(got < 0);
          continue;
        }
        if (got == 1) link.toTarget.push_back(Chunk{after, std::move(bytes)});
      }
      if (link.targetConnected && !writeDue(link.target, link.toTarget, after)) {
        link.end(true);
        continue;
      }
      if (link.targetConnected && (targetReady & (POLLIN | POLLERR | POLLHUP)) != 0) {
        std::string bytes;
        const int got = readSome(link.target, bytes);
        if (got < 0) {
          link.end(true);
          continue;
        }
        if (got == 0) link.targetEnded = true;
        if (got == 1) {
          if (faults(true).resetsLeft > 0) {
            link.end(true);
            continue;
          }
          const Duration latency = after < fault.delayedUntil ? fault.latency : Duration(0);
          link.toClient.push_back(Chunk{after + latency, std::move(bytes)});
        }
      }
      if (!writeDue(link.client, link.toClient, after)) {
        link.end(true);
        continue;
      }
      if (link.targetEnded && link.toClient.empty()) link.end(false);
    }
    links.remove_if([](const Link& link) { return link.dead; });

    if ((fds[1].revents & POLLIN) != 0) {
      for (;;) {
        const int client = accept4(m_listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client < 0) break;
        if (Clock::now() < fault.refusedUntil) {
          closeWithReset(client);
          continue;
        }
        Link link;
        link.client = client;
        link.target = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const sockaddr_in target = loopback(m_targetHost, m_targetPort);
        if (link.target < 0 || (connect(link.target, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0 &&
                                errno != EINPROGRESS)) {
          link.end(true);
          continue;
        }
        links.push_back(std::move(link));
      }
    }
  }
  for (Link& link : links) link.end(false);
}

}  // namespace faultproxy
