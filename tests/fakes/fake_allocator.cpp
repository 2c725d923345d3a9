#include "fake_allocator.h"

#include <cstdlib>

#include "platform/ksqd_client.h"

namespace fake {
namespace {
int g_failAt = 0;  // countdown; the call that brings it to 0 fails
std::vector<std::string> g_calls;
std::vector<std::string> g_releases;
int g_live = 0;
}  // namespace

void failAllocationNumber(int n) { g_failAt = n; }
const std::vector<std::string>& allocationCallers() { return g_calls; }
const std::vector<std::string>& releaseCallers() { return g_releases; }
int liveAllocations() { return g_live; }

void resetAllocator() {
  g_failAt = 0;
  g_calls.clear();
  g_releases.clear();
  g_live = 0;
}

}  // namespace fake

extern "C" void* cct_malloc(const char* caller, size_t size, int /*line*/) {
  using namespace fake;
  g_calls.push_back(caller != nullptr ? caller : "");
  if (g_failAt > 0 && --g_failAt == 0) return nullptr;
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block != nullptr) ++g_live;
  return block;
}

extern "C" void cct_free(const char* caller, void** pointer, int /*line*/) {
  if (pointer == nullptr || *pointer == nullptr) return;
  fake::g_releases.push_back(caller != nullptr ? caller : "");
  std::free(*pointer);
  *pointer = nullptr;
  --fake::g_live;
}
