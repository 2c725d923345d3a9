// Ownership of one Jansson reference: dropping the holder drops the
// reference, so a JSON value cannot outlive the scope that made or parsed it,
// whichever way that scope is left.
#ifndef KSCDP_SERVICES_JSONPTR_H_
#define KSCDP_SERVICES_JSONPTR_H_

#include <jansson.h>

#include <memory>

struct JsonDecref {
  void operator()(json_t* value) const { json_decref(value); }
};

using JsonPtr = std::unique_ptr<json_t, JsonDecref>;

#endif  // KSCDP_SERVICES_JSONPTR_H_
