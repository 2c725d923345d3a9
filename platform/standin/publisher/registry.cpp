#include "platform/standin/publisher/registry.h"

#include <algorithm>
#include <vector>

#include "port/fork_hooks.h"
#include "port/mutex.h"
#include "port/no_destructor.h"

namespace standin {
namespace {

// Never destroyed: the process may exit while a publisher lives.
struct LivePublishers {
  port::Mutex mutex;
  std::vector<ForkingPublisher*> publishers GUARDED_BY(mutex);
};
port::NoDestructor<LivePublishers> g_live;

void prepareFork() NO_THREAD_SAFETY_ANALYSIS {
  g_live->mutex.lock();
  for (ForkingPublisher* publisher : g_live->publishers) publisher->holdForFork();
}

void parentAfterFork() NO_THREAD_SAFETY_ANALYSIS {
  for (ForkingPublisher* publisher : g_live->publishers) publisher->releaseAfterFork(false);
  g_live->mutex.unlock();
}

void childAfterFork() NO_THREAD_SAFETY_ANALYSIS {
  for (ForkingPublisher* publisher : g_live->publishers) publisher->releaseAfterFork(true);
  g_live->publishers.clear();
  g_live->mutex.unlock();
}

}  // namespace

const port::ForkHooks kPublisherForkHooks = {&prepareFork, &parentAfterFork, &childAfterFork};

void registerPublisher(ForkingPublisher* publisher) {
  port::MutexLock lock(g_live->mutex);
  g_live->publishers.push_back(publisher);
}

void unregisterPublisher(ForkingPublisher* publisher) {
  port::MutexLock lock(g_live->mutex);
  std::vector<ForkingPublisher*>& live = g_live->publishers;
  live.erase(std::remove(live.begin(), live.end(), publisher), live.end());
}

bool releasePublisherRegistry() {
  port::MutexLock lock(g_live->mutex);
  if (!g_live->publishers.empty()) return false;
  std::vector<ForkingPublisher*>().swap(g_live->publishers);
  return true;
}

}  // namespace standin
