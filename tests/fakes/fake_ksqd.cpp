#include "fake_ksqd.h"

#include <cstring>

#include "platform/ksqd_client.h"

extern "C" int invoke_ksqd_cct_request(const char* master_server, int kind, const char* request, char** answer) {
  fake::Ksqd& k = fake::ksqd;
  k.calls.push_back(std::string(master_server) + " " + std::to_string(kind) + " " + request);
  if (k.result != 0 || !k.hasAnswer) return k.result;
  std::string text = k.answer;
  if (!k.answers.empty()) {
    text = k.answers.front();
    k.answers.pop_front();
  }
  *answer = strdup(text.c_str());
  if (k.whenAnswering) k.whenAnswering();
  return 0;
}
