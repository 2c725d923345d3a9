#include "check_result.h"

namespace doctor {

const char* statusName(Status status) {
  switch (status) {
    case Status::kOk: return "ok";
    case Status::kWarning: return "warning";
    case Status::kFailed: return "failed";
    case Status::kSkipped: return "skipped";
  }
  return "failed";
}

namespace {

CheckResult makeResult(const std::string& id, const std::string& title, Status status, const std::string& detail,
                       const std::string& action) {
  CheckResult result;
  result.id = id;
  result.title = title;
  result.status = status;
  result.detail = detail;
  result.action = action;
  return result;
}

}  // namespace

CheckResult okResult(const std::string& id, const std::string& title, const std::string& detail) {
  return makeResult(id, title, Status::kOk, detail, "");
}

CheckResult warningResult(const std::string& id, const std::string& title, const std::string& detail,
                          const std::string& action) {
  return makeResult(id, title, Status::kWarning, detail, action);
}

CheckResult failedResult(const std::string& id, const std::string& title, const std::string& detail,
                         const std::string& action) {
  return makeResult(id, title, Status::kFailed, detail, action);
}

CheckResult skippedResult(const std::string& id, const std::string& title, const std::string& reason) {
  return makeResult(id, title, Status::kSkipped, reason, "");
}

}  // namespace doctor
