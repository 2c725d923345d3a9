#include "platform/standin/metrics/writer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <thread>

#include "platform/ksu_log.h"
#include "platform/standin/config/broker_settings.h"
#include "platform/standin/config/config_file.h"
#include "platform/standin/config/metrics_settings.h"
#include "platform/standin/config/outbox_settings.h"
#include "platform/standin/counters/metrics.h"
#include "platform/standin/metrics/text.h"
#include "platform/standin/outbox/guest.h"
#include "port/fork_hooks.h"
#include "port/mutex.h"
#include "port/no_destructor.h"

namespace standin {
namespace {

using Clock = std::chrono::steady_clock;

const char kLogFunction[] = "metrics_file";

// The outbox's SQLite files and the guest files beside it.
uint64_t outboxBytes() {
  std::string path;
  std::string error;
  if (!readOutboxPath(path, error) || path.empty()) return 0;
  const size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(directory.c_str()), closedir);
  if (!listing) return 0;
  uint64_t bytes = 0;
  while (const dirent* entry = readdir(listing.get())) {
    const std::string found = entry->d_name;
    const bool ours = found == name || found == name + "-wal" || found == name + "-shm" || found == name + "-journal" ||
                      isGuestOutboxName(found, name);
    struct stat status;
    if (ours && fstatat(dirfd(listing.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(status.st_mode)) {
      bytes += static_cast<uint64_t>(status.st_size);
    }
  }
  return bytes;
}

MetricsGauges currentGauges() {
  MetricsGauges gauges;
  const metrics::Waiting waiting = metrics::waitingInProcess();
  gauges.alertsWaiting = waiting.count;
  if (waiting.count > 0) {
    gauges.oldestWaitingSeconds = std::chrono::duration<double>(Clock::now() - waiting.oldest).count();
  }
  gauges.outboxBytes = outboxBytes();
  BrokerSettings brokers;
  std::string error;
  if (brokerSettings(*currentConfig(), brokers, error)) {
    for (const BrokerAddress& address : brokers.addresses) gauges.brokers.push_back(brokerText(address));
  }
  gauges.version = KSCDP_VERSION;
  return gauges;
}

class Writer {
 public:
  void hold() EXCLUDES(m_mutex) {
    port::MutexLock lock(m_mutex);
    if (m_forkedChild) return;
    if (m_thread == nullptr && !metricsSettings(*currentConfig()).path.empty())
      m_thread = new std::thread(&Writer::run, this, m_generation);
    ++m_holds;
  }

  void release() EXCLUDES(m_mutex) {
    std::thread* thread = nullptr;
    {
      port::MutexLock lock(m_mutex);
      if (m_holds > 0 && --m_holds > 0) return;
      thread = takeThread();
    }
    join(thread);
  }

  void stopAtUnload() EXCLUDES(m_mutex) {
    std::thread* thread = nullptr;
    {
      port::MutexLock lock(m_mutex);
      m_holds = 0;
      m_skipLastWrite = true;
      thread = takeThread();
    }
    join(thread);
    port::MutexLock lock(m_mutex);
    m_skipLastWrite = false;
  }

  void prepareFork() ACQUIRE(m_mutex) { m_mutex.lock(); }
  void parentAfterFork() RELEASE(m_mutex) { m_mutex.unlock(); }
  void childAfterFork() RELEASE(m_mutex) {
    // The parent's thread is not in the child: its std::thread is never
    // joined nor destroyed here.
    m_thread = nullptr;
    m_holds = 0;
    m_forkedChild = true;
    m_mutex.unlock();
  }

 private:
  // The thread to join, asked to stop; null when none runs.
  std::thread* takeThread() REQUIRES(m_mutex) {
    std::thread* thread = m_thread;
    m_thread = nullptr;
    ++m_generation;
    m_wake.notifyAll();
    return thread;
  }

  static void join(std::thread* thread) {
    if (thread == nullptr) return;
    thread->join();
    delete thread;
  }

  // What one writer thread has logged: each failure once, until a rewrite
  // succeeds again.
  struct Logged {
    bool failing = false;
    std::string problem;
  };

  // Runs until m_generation moves on from `generation`: a thread that is
  // still writing its last file when the next one starts stops all the same.
  void run(uint64_t generation) EXCLUDES(m_mutex) {
    Logged logged;
    // The last write says that no other follows, so that a file left
    // unchanged by an engine without a publisher does not look stale.
    bool last = false;
    for (;;) {
      MetricsSettings settings;
      try {
        settings = metricsSettings(*currentConfig());
        write(settings, last, logged);
      } catch (...) {
        // Memory ran out for this rewrite: the next one tries again.
      }
      port::MutexLock lock(m_mutex);
      if (last) return;
      const auto stopped = [this, generation]() REQUIRES(m_mutex) { return m_generation != generation; };
      if (!stopped()) m_wake.waitUntil(m_mutex, Clock::now() + settings.interval, stopped);
      if (stopped() && m_skipLastWrite) return;
      last = stopped();
    }
  }

  static void write(const MetricsSettings& settings, bool last, Logged& logged) {
    if (!settings.problem.empty() && settings.problem != logged.problem)
      ksu_logmsg_str(FAILURE_LEVEL, kLogFunction, settings.problem);
    logged.problem = settings.problem;
    if (settings.path.empty()) return;
    MetricsGauges gauges = currentGauges();
    gauges.rewriteSeconds = last ? 0 : static_cast<uint64_t>(settings.interval.count());
    const std::string text = metricsText(metrics::currentCounts(), gauges);
    std::string error;
    if (replaceFileAtomically(settings.path, text, error)) {
      logged.failing = false;
      return;
    }
    if (!logged.failing) {
      ksu_logmsg_str(FAILURE_LEVEL, kLogFunction,
                     "cannot write " + settings.path + ": " + error +
                         "; make its directory writable by the engine's user, or change metrics_file");
    }
    logged.failing = true;
  }

  port::Mutex m_mutex;
  port::CondVar m_wake;
  int m_holds GUARDED_BY(m_mutex) = 0;
  std::thread* m_thread GUARDED_BY(m_mutex) = nullptr;  // owned; null while no thread runs
  uint64_t m_generation GUARDED_BY(m_mutex) = 0;        // moves on each time a thread is asked to stop
  bool m_skipLastWrite GUARDED_BY(m_mutex) = false;
  bool m_forkedChild GUARDED_BY(m_mutex) = false;
};

// Never destroyed: a hold may be given back while the process exits.
port::NoDestructor<Writer> g_writer;

void prepareWriterFork() NO_THREAD_SAFETY_ANALYSIS { g_writer->prepareFork(); }
void writerParentAfterFork() NO_THREAD_SAFETY_ANALYSIS { g_writer->parentAfterFork(); }
void writerChildAfterFork() NO_THREAD_SAFETY_ANALYSIS { g_writer->childAfterFork(); }

}  // namespace

const port::ForkHooks kMetricsWriterForkHooks = {&prepareWriterFork, &writerParentAfterFork, &writerChildAfterFork};

MetricsWriterUse::MetricsWriterUse() {
  try {
    g_writer->hold();
    m_held = true;
  } catch (const std::exception& e) {
    ksu_logmsg_str(FAILURE_LEVEL, kLogFunction, std::string("cannot start the metrics file's writer: ") + e.what());
  }
}

void MetricsWriterUse::release() {
  if (!m_held) return;
  m_held = false;
  g_writer->release();
}

void stopMetricsWriter() { g_writer->stopAtUnload(); }

bool replaceFileAtomically(const std::string& path, const std::string& text, std::string& error) {
  std::string temporary = path + ".XXXXXX";
  const int fd = mkostemp(&temporary[0], O_CLOEXEC);
  if (fd < 0) {
    error = std::strerror(errno);
    return false;
  }
  size_t written = 0;
  int failure = fchmod(fd, 0644) == 0 ? 0 : errno;
  while (failure == 0 && written < text.size()) {
    const ssize_t done = ::write(fd, text.data() + written, text.size() - written);
    if (done >= 0) {
      written += static_cast<size_t>(done);
    } else if (errno != EINTR) {
      failure = errno;
    }
  }
  if (close(fd) != 0 && failure == 0) failure = errno;
  if (failure == 0 && rename(temporary.c_str(), path.c_str()) != 0) failure = errno;
  if (failure == 0) return true;
  unlink(temporary.c_str());
  error = std::strerror(failure);
  return false;
}

}  // namespace standin
