#include "platform/standin/config/broker_route.h"

#include <cstdint>

namespace standin {
namespace {

// 64-bit FNV-1a over the name's bytes, then the finaliser of SplitMix64, so
// that names differing only in their last characters (host-1, host-2, ...)
// land far apart in every bit. Neither constant may change: a host's route
// must stay the same across releases.
uint64_t nameHash(const std::string& name) {
  uint64_t hash = 0xcbf29ce484222325u;
  for (const unsigned char byte : name) {
    hash ^= byte;
    hash *= 0x100000001b3u;
  }
  hash ^= hash >> 30;
  hash *= 0xbf58476d1ce4e5b9u;
  hash ^= hash >> 27;
  hash *= 0x94d049bb133111ebu;
  hash ^= hash >> 31;
  return hash;
}

}  // namespace

BrokerRoute writtenRoute() { return BrokerRoute(); }

BrokerRoute spreadRoute(const std::string& hostName, size_t entries) {
  const uint64_t hash = nameHash(hostName);
  BrokerRoute route;
  route.first = entries == 0 ? 0 : static_cast<size_t>(hash % entries);
  route.backwards = (hash >> 63) != 0;
  return route;
}

}  // namespace standin
