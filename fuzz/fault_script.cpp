#include "fault_script.h"

#include <exception>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

#include "fake_platform.h"
#include "rest/CCTCurlWrapper.h"

namespace fuzz {
namespace {

// The index (into fake::allocator.callers) of the call armed to fail.
size_t g_failingAllocation = std::numeric_limits<size_t>::max();

std::string text(FuzzedDataProvider& input, size_t maxLength = 48) {
  return input.ConsumeRandomLengthString(maxLength);
}

// Mostly `usual`, sometimes anything.
int result(FuzzedDataProvider& input, int usual) {
  switch (input.ConsumeIntegralInRange(0, 3)) {
    case 0: return input.ConsumeIntegral<int>();
    case 1: return input.ConsumeIntegralInRange(-8, 300);
    default: return usual;
  }
}

// Something a throwing client call might throw: the REST client's own
// exception, a standard one, or something that is no exception class at all.
std::exception_ptr thrown(FuzzedDataProvider& input) {
  switch (input.ConsumeIntegralInRange(0, 7)) {
    case 0: return std::make_exception_ptr(KSCurlWrapperException(result(input, 7), text(input)));
    case 1: return std::make_exception_ptr(std::runtime_error(text(input)));
    case 2: return std::make_exception_ptr(std::bad_alloc());
    case 3: return std::make_exception_ptr(input.ConsumeIntegral<int>());
    default: return nullptr;
  }
}

// A job id as the engine might see one: small, huge, negative or not a number.
std::string jobIdJson(FuzzedDataProvider& input) {
  switch (input.ConsumeIntegralInRange(0, 3)) {
    case 0: return std::to_string(input.ConsumeIntegral<int64_t>());
    case 1: return "\"" + text(input, 8) + "\"";
    case 2: return text(input, 12);
    default: return std::to_string(input.ConsumeIntegralInRange(1, 100000));
  }
}

std::string daemonAnswer(FuzzedDataProvider& input) {
  if (input.ConsumeBool()) return text(input);
  return "{\"jobid\": " + jobIdJson(input) + "}";
}

std::string jobState(FuzzedDataProvider& input) {
  switch (input.ConsumeIntegralInRange(0, 3)) {
    case 0: return "DONE";
    case 1: return "ACTIVE";
    case 2: return "QUEUED";
    default: return text(input, 12);
  }
}

std::string jobsBody(FuzzedDataProvider& input) {
  if (input.ConsumeBool()) return text(input);
  return "{\"data\":{\"attributes\":{\"state\":\"" + jobState(input) + "\",\"status\":" + jobIdJson(input) + "}}}";
}

void scriptConfig(FuzzedDataProvider& input) {
  fake::Config& script = fake::config;
  script = fake::Config{};
  if (input.ConsumeBool()) return;
  script.readResult = input.ConsumeBool() ? 0 : result(input, 22);
  script.successfulReadsFirst = input.ConsumeIntegralInRange(0, 4);
  script.hasServerList = input.ConsumeBool();
  script.servers.clear();
  for (int n = input.ConsumeIntegralInRange(0, 2); n > 0; --n) script.servers.push_back(text(input));
  script.hasHostName = input.ConsumeBool();
  script.hostName = text(input);
}

void scriptDaemon(FuzzedDataProvider& input) {
  fake::Ksqd& script = fake::ksqd;  // the script only: the calls stay on record
  script.answers.clear();
  script.result = input.ConsumeBool() ? 0 : result(input, 25);
  script.hasAnswer = input.ConsumeIntegralInRange(0, 7) != 0;
  script.answer = daemonAnswer(input);
  for (int n = input.ConsumeIntegralInRange(0, 3); n > 0; --n) script.answers.push_back(daemonAnswer(input));
}

void scriptHttp(FuzzedDataProvider& input) {
  fake::Curl& script = fake::curl;  // the script only: the clients stay on record
  script.answers.clear();
  for (int n = input.ConsumeIntegralInRange(0, 6); n > 0; --n) {
    fake::CurlAnswer answer;
    answer.code = input.ConsumeBool() ? 200 : input.PickValueInArray({404L, 500L, 0L, -1L, 1L << 40});
    answer.body = jobsBody(input);
    if (input.ConsumeBool()) answer.headers["X-Keepstone-Warning"] = text(input);
    if (input.ConsumeIntegralInRange(0, 3) == 0) answer.headerLookupResult = result(input, 227);
    script.answers.push_back(answer);
  }
  script.constructorThrows = thrown(input);
  script.requestThrows = thrown(input);
}

void scriptNotification(FuzzedDataProvider& input) {
  fake::Notifications& script = fake::notifications;  // every field of the script
  script.sendResult = input.ConsumeBool() ? 0 : result(input, 1);
  script.constructorThrows = input.ConsumeIntegralInRange(0, 5) == 0;
  script.sendThrows = input.ConsumeIntegralInRange(0, 5) == 0;
  script.shutdownThrows = input.ConsumeIntegralInRange(0, 5) == 0;
}

}  // namespace

void scriptPlatform(FuzzedDataProvider& input) {
  scriptAllocationFailure(input);
  scriptConfig(input);
  scriptDaemon(input);
  scriptHttp(input);
  scriptNotification(input);
}

void scriptAllocationFailure(FuzzedDataProvider& input) {
  const int n = input.ConsumeBool() ? 0 : input.ConsumeIntegralInRange(1, 8);
  fake::allocator.failAt = n;
  g_failingAllocation = n == 0 ? std::numeric_limits<size_t>::max() : fake::allocator.callers.size() + n - 1;
}

bool allocationFailedSince(size_t allocationCalls) {
  return g_failingAllocation >= allocationCalls && g_failingAllocation < fake::allocator.callers.size();
}

}  // namespace fuzz
