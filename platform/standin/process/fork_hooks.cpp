// Registers the stand-ins' fork handlers when the library loads.
#include "platform/standin/process/fork_hooks.h"

#include <pthread.h>

namespace standin {
namespace {

// Outermost first: a publisher reads the configuration and logs while it
// holds its locks; nothing calls into a publisher while it holds the log's.
// The metrics writer holds its lock only while it starts or ends; the
// counts' locks are innermost, held around a copy or a queue's own lock.
const ForkHooks* const kOuterFirst[] = {&kMetricsWriterForkHooks, &kPublisherForkHooks, &kConfigForkHooks,
                                        &kCurlForkHooks,          &kLogForkHooks,       &kMetricsForkHooks};
const int kParts = sizeof kOuterFirst / sizeof kOuterFirst[0];

void prepare() {
  for (int i = 0; i < kParts; ++i) kOuterFirst[i]->prepare();
}

void parent() {
  for (int i = kParts - 1; i >= 0; --i) kOuterFirst[i]->parent();
}

void child() {
  for (int i = kParts - 1; i >= 0; --i) kOuterFirst[i]->child();
}

struct Registration {
  Registration() { pthread_atfork(&prepare, &parent, &child); }
} g_registration;

}  // namespace
}  // namespace standin
