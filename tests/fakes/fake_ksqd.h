// Scriptable fake of the request-daemon call: records every call and hands
// back a scripted result and a malloc'ed answer, which the caller must free
// (the sanitizer build reports one that is not).
#ifndef KSCDP_TESTS_FAKES_FAKE_KSQD_H_
#define KSCDP_TESTS_FAKES_FAKE_KSQD_H_

#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace fake {

struct Ksqd {
  // What the next calls do. As the real client, the fake sets the answer
  // only with a 0 result, and not at all without hasAnswer.
  int result = 0;
  bool hasAnswer = true;
  std::string answer = "{\"jobid\": 1}";
  // When not empty, each call with a 0 result takes the next of these instead.
  std::deque<std::string> answers;

  // Run by each call with a 0 result just before it returns.
  std::function<void()> whenAnswering;

  std::vector<std::string> calls;  // "<master server> <kind> <request>" of every call
};

inline Ksqd ksqd;

}  // namespace fake

#endif  // KSCDP_TESTS_FAKES_FAKE_KSQD_H_
