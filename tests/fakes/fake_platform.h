// The recording fake platform that unit tests link instead of the stand-ins.
#ifndef KSCDP_TESTS_FAKES_FAKE_PLATFORM_H_
#define KSCDP_TESTS_FAKES_FAKE_PLATFORM_H_

#include "fake_allocator.h"
#include "fake_config.h"
#include "fake_curl_client.h"
#include "fake_ksqd.h"
#include "fake_log.h"
#include "fake_notification.h"
#include "fake_pause.h"

namespace fake {

// Puts every fake back to its initial state.
void resetPlatform();

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_PLATFORM_H_
