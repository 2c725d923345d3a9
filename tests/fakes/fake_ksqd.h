// Scriptable fake of the request-daemon call. It records every call and hands
// back a scripted result and answer; answers come from malloc and are tracked
// until they reach free, so tests can check that each one is released.
//
// Programs that link the fakes have free wrapped (-Wl,--wrap=free) so that the
// fake sees every free of the code under test.
#ifndef KSCDP_TESTS_FAKES_FAKE_KSQD_H_
#define KSCDP_TESTS_FAKES_FAKE_KSQD_H_

#include <deque>
#include <string>
#include <vector>

namespace fake {

struct KsqdCall {
  std::string masterServer;  // "<null>" when the caller passed null
  int kind;
  std::string request;  // "<null>" when the caller passed null
};

// What the next invoke_ksqd_cct_request calls do. As the real client, the
// fake sets the answer only with a 0 result; with hasAnswer false a 0 result
// leaves the answer as the caller set it.
struct KsqdScript {
  int result = 0;
  bool hasAnswer = true;
  std::string answer = "{\"jobid\": 1}";
  // When not empty, each call with a 0 result takes the next of these instead.
  std::deque<std::string> answers;
};

KsqdScript& ksqdScript();
const std::vector<KsqdCall>& ksqdCalls();
// Answers handed out and not yet released with free.
int outstandingKsqdAnswers();
// Frees what is still outstanding, forgets the calls, restores the script.
void resetKsqd();

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_KSQD_H_
