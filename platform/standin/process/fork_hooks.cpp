// Registers the stand-ins' fork handlers when the library loads: the one
// place that knows every process-wide part, and the order their locks nest.
#include "port/fork_hooks.h"

#include <pthread.h>

#include "platform/standin/config/config_file.h"
#include "platform/standin/counters/metrics.h"
#include "platform/standin/files/close_on_exec.h"
#include "platform/standin/files/log_sink.h"
#include "platform/standin/http/curl_support.h"
#include "platform/standin/metrics/writer.h"
#include "platform/standin/publisher/registry.h"

namespace standin {
namespace {

// Outermost first: fork() is held off while a library opens descriptors that
// are still to be marked close-on-exec, around calls that take none of the
// locks below. A publisher reads the configuration and logs while it holds
// its locks; nothing calls into a publisher while it holds the log's. The
// metrics writer holds its lock only while it starts or ends; the counts'
// locks are innermost, held around a copy or a queue's own lock.
const port::ForkHooks* const kOuterFirst[] = {&kCloseOnExecForkHooks, &kMetricsWriterForkHooks, &kPublisherForkHooks,
                                              &kConfigForkHooks,      &kCurlForkHooks,          &kLogForkHooks,
                                              &kMetricsForkHooks};
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
