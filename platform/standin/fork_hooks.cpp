// Registers the stand-ins' fork handlers when the library loads.
#include "fork_hooks.h"

#include <pthread.h>

namespace standin {
namespace {

// Outermost first: a publisher reads the configuration and logs while it
// holds its locks; nothing calls into a publisher while it holds the log's.
const ForkHooks* const kOuterFirst[] = {&kPublisherForkHooks, &kConfigForkHooks, &kCurlForkHooks, &kLogForkHooks};
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
