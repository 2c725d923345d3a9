#include "report.h"

#include <jansson.h>

#include <cstdlib>
#include <memory>

namespace doctor {
namespace {

struct JsonRelease {
  void operator()(json_t* value) const { json_decref(value); }
};
using Json = std::unique_ptr<json_t, JsonRelease>;

json_t* checkObject(const CheckResult& result) {
  json_t* check = json_pack("{s:s, s:s, s:s, s:s}", "id", result.id.c_str(), "title", result.title.c_str(), "status",
                            statusName(result.status), "detail", result.detail.c_str());
  if (check != nullptr && !result.action.empty() &&
      json_object_set_new(check, "action", json_string(result.action.c_str())) != 0) {
    json_decref(check);
    return nullptr;
  }
  for (const auto& [name, value] : result.figures) {
    if (check != nullptr && json_object_set_new(check, name.c_str(), json_integer(value)) != 0) {
      json_decref(check);
      return nullptr;
    }
  }
  for (const auto& [name, value] : result.findings) {
    if (check != nullptr && json_object_set_new(check, name.c_str(), json_boolean(value)) != 0) {
      json_decref(check);
      return nullptr;
    }
  }
  return check;
}

}  // namespace

bool anyFailed(const std::vector<CheckResult>& results) {
  for (const CheckResult& result : results) {
    if (result.status == Status::kFailed) return true;
  }
  return false;
}

void printText(const std::vector<CheckResult>& results, FILE* out) {
  for (const CheckResult& result : results) {
    std::fprintf(out, "%-8s %s: %s", statusName(result.status), result.title.c_str(), result.detail.c_str());
    if (!result.action.empty()) std::fprintf(out, " -> %s", result.action.c_str());
    std::fputc('\n', out);
  }
}

bool printJson(const std::vector<CheckResult>& results, FILE* out) {
  Json checks(json_array());
  if (checks == nullptr) return false;
  for (const CheckResult& result : results) {
    if (json_array_append_new(checks.get(), checkObject(result)) != 0) return false;
  }
  Json document(json_pack("{s:b, s:O}", "ok", !anyFailed(results), "checks", checks.get()));
  if (document == nullptr) return false;
  if (json_dumpf(document.get(), out, JSON_INDENT(2)) != 0) return false;
  std::fputc('\n', out);
  return true;
}

}  // namespace doctor
