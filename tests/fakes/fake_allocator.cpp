#include "fake_allocator.h"

#include <cstdlib>

#include "platform/ksqd_client.h"

extern "C" void* cct_malloc(const char* caller, size_t size, int /*line*/) {
  fake::Allocator& a = fake::allocator;
  a.callers.push_back(caller != nullptr ? caller : "");
  if (a.failAt > 0 && --a.failAt == 0) return nullptr;
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block != nullptr) ++a.live;
  return block;
}

extern "C" void cct_free(const char* caller, void** pointer, int /*line*/) {
  if (pointer == nullptr || *pointer == nullptr) return;
  fake::allocator.releases.push_back(caller != nullptr ? caller : "");
  std::free(*pointer);
  *pointer = nullptr;
  --fake::allocator.live;
}
