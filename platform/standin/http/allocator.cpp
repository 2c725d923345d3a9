// The request-daemon client's allocator pair over malloc and free.
#include <cstdlib>

#include "platform/ksqd_client.h"

extern "C" void* cct_malloc(const char* /*caller*/, size_t size, int /*line*/) {
  // A request of 0 bytes still gets a unique pointer.
  return std::malloc(size == 0 ? 1 : size);
}

extern "C" void cct_free(const char* /*caller*/, void** pointer, int /*line*/) {
  if (pointer == nullptr) return;
  std::free(*pointer);
  *pointer = nullptr;
}
