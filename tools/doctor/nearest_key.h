// The known configuration key an unknown one was probably meant to be.
#ifndef KSCDP_TOOLS_DOCTOR_NEAREST_KEY_H_
#define KSCDP_TOOLS_DOCTOR_NEAREST_KEY_H_

#include <string>

namespace doctor {

// The known key (standin::knownConfigKeys()) fewest single-character edits
// (insert, delete, replace) away from `key`, the first listed on a tie; empty
// when even that one is more than two edits away, or as many edits as `key`
// has characters.
std::string nearestKnownKey(const std::string& key);

}  // namespace doctor

#endif  // KSCDP_TOOLS_DOCTOR_NEAREST_KEY_H_
