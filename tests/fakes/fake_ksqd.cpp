#include "fake_ksqd.h"

#include <cstring>

#include "platform/ksqd_client.h"

namespace fake {
namespace {
KsqdScript g_script;
std::vector<std::string> g_calls;
}  // namespace

KsqdScript& ksqdScript() { return g_script; }
const std::vector<std::string>& ksqdCalls() { return g_calls; }

void resetKsqd() {
  g_calls.clear();
  g_script = KsqdScript{};
}

}  // namespace fake

extern "C" int invoke_ksqd_cct_request(const char* master_server, int kind, const char* request,
                                       char** answer) {
  using namespace fake;
  g_calls.push_back(std::string(master_server) + " " + std::to_string(kind) + " " + request);
  if (g_script.result != 0 || !g_script.hasAnswer) return g_script.result;
  std::string text = g_script.answer;
  if (!g_script.answers.empty()) {
    text = g_script.answers.front();
    g_script.answers.pop_front();
  }
  *answer = strdup(text.c_str());
  return 0;
}
