#include "platform/standin/publisher/registry.h"

#include <algorithm>
#include <vector>

#include "platform/standin/process/fork_hooks.h"
#include "platform/standin/publisher/mqtt_publisher.h"
#include "port/mutex.h"
#include "port/no_destructor.h"
#include "platform/standin/process/unload.h"

namespace standin {
namespace {

// Never destroyed: the process may exit while a publisher lives.
struct LivePublishers {
  port::Mutex mutex;
  std::vector<MqttPublisher*> publishers GUARDED_BY(mutex);
};
port::NoDestructor<LivePublishers> g_live;

// Each publisher holds its publishing and its outbox while the process is
// copied; a child lets go of its parent's publishers without touching their
// connection, outbox or thread, and never destroys them.
void prepareFork() NO_THREAD_SAFETY_ANALYSIS {
  g_live->mutex.lock();
  for (MqttPublisher* publisher : g_live->publishers) publisher->holdForFork();
}

void parentAfterFork() NO_THREAD_SAFETY_ANALYSIS {
  for (MqttPublisher* publisher : g_live->publishers) publisher->releaseAfterFork(false);
  g_live->mutex.unlock();
}

void childAfterFork() NO_THREAD_SAFETY_ANALYSIS {
  for (MqttPublisher* publisher : g_live->publishers) publisher->releaseAfterFork(true);
  g_live->publishers.clear();
  g_live->mutex.unlock();
}

}  // namespace

const ForkHooks kPublisherForkHooks = {&prepareFork, &parentAfterFork, &childAfterFork};

void registerPublisher(MqttPublisher* publisher) {
  port::MutexLock lock(g_live->mutex);
  g_live->publishers.push_back(publisher);
}

void unregisterPublisher(MqttPublisher* publisher) {
  port::MutexLock lock(g_live->mutex);
  std::vector<MqttPublisher*>& live = g_live->publishers;
  live.erase(std::remove(live.begin(), live.end(), publisher), live.end());
}

bool releasePublisherRegistry() {
  port::MutexLock lock(g_live->mutex);
  if (!g_live->publishers.empty()) return false;
  std::vector<MqttPublisher*>().swap(g_live->publishers);
  return true;
}

}  // namespace standin
