#include "fake_ksqd.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/ksqd_client.h"

extern "C" void __real_free(void* block);

namespace fake {
namespace {

KsqdScript g_script;
std::vector<KsqdCall> g_calls;

// Answers not yet freed. free runs for every release in the program, also on
// other threads and during start-up and shut-down, so tracking must neither
// lock nor allocate: a fixed table of atomic slots.
constexpr int kAnswerSlots = 64;
std::atomic<void*> g_outstanding[kAnswerSlots];

void track(void* answer) {
  for (std::atomic<void*>& slot : g_outstanding) {
    void* empty = nullptr;
    if (slot.compare_exchange_strong(empty, answer)) return;
  }
  std::fprintf(stderr, "fake_ksqd: more than %d answers outstanding\n", kAnswerSlots);
  std::abort();
}

// True when `block` was an outstanding answer, which it no longer is.
bool untrack(void* block) {
  for (std::atomic<void*>& slot : g_outstanding) {
    void* expected = block;
    if (slot.load(std::memory_order_relaxed) == block && slot.compare_exchange_strong(expected, nullptr)) {
      return true;
    }
  }
  return false;
}

std::string textOrNull(const char* text) { return text != nullptr ? text : "<null>"; }

}  // namespace

KsqdScript& ksqdScript() { return g_script; }
const std::vector<KsqdCall>& ksqdCalls() { return g_calls; }

int outstandingKsqdAnswers() {
  int count = 0;
  for (const std::atomic<void*>& slot : g_outstanding) count += slot.load() != nullptr ? 1 : 0;
  return count;
}

void resetKsqd() {
  for (std::atomic<void*>& slot : g_outstanding) __real_free(slot.exchange(nullptr));
  g_calls.clear();
  g_script = KsqdScript{};
}

}  // namespace fake

extern "C" void __wrap_free(void* block) {
  if (block != nullptr) fake::untrack(block);
  __real_free(block);
}

extern "C" int invoke_ksqd_cct_request(const char* master_server, int kind, const char* request,
                                       char** answer) {
  using namespace fake;
  g_calls.push_back({textOrNull(master_server), kind, textOrNull(request)});
  if (g_script.result == 0 && g_script.hasAnswer && answer != nullptr) {
    std::string text = g_script.answer;
    if (!g_script.answers.empty()) {
      text = g_script.answers.front();
      g_script.answers.pop_front();
    }
    auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) std::abort();
    std::memcpy(copy, text.c_str(), text.size() + 1);
    track(copy);
    *answer = copy;
  }
  return g_script.result;
}
