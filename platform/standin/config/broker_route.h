// Where a host starts in the broker list and which way it goes round it:
// "broker_order".
#ifndef KSCDP_PLATFORM_STANDIN_CONFIG_BROKER_ROUTE_H_
#define KSCDP_PLATFORM_STANDIN_CONFIG_BROKER_ROUTE_H_

#include <cstddef>
#include <string>

namespace standin {

// A way round a broker list of some length: the entry tried first, then
// every other entry once, forwards or backwards, wrapping round.
struct BrokerRoute {
  size_t first = 0;
  bool backwards = false;
};

// "broker_order = written": the first entry first, then the list as written.
BrokerRoute writtenRoute();

// "broker_order = spread": the route of the host called `hostName` round a
// list of `entries` (at least 1). The same name always gives the same route,
// in every release; many names spread evenly over the first entries, and the
// hosts that start at one entry divide evenly between going forwards and
// backwards, so that when that entry fails they reach both of its neighbours
// in equal numbers.
BrokerRoute spreadRoute(const std::string& hostName, size_t entries);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_CONFIG_BROKER_ROUTE_H_
