// Owns one reference to a Jansson value and drops it when it goes, so that a
// parsed document is released on every way out of its parser.
#ifndef KSCDP_SERVICES_JSONREFERENCE_H_
#define KSCDP_SERVICES_JSONREFERENCE_H_

#include <jansson.h>

#include <memory>

struct JsonReferenceRelease {
  void operator()(json_t* value) const { json_decref(value); }
};

using JsonReference = std::unique_ptr<json_t, JsonReferenceRelease>;

#endif  // KSCDP_SERVICES_JSONREFERENCE_H_
