// The outcome of one of the doctor's checks.
#ifndef KSCDP_TOOLS_DOCTOR_CHECK_RESULT_H_
#define KSCDP_TOOLS_DOCTOR_CHECK_RESULT_H_

#include <string>
#include <utility>
#include <vector>

namespace doctor {

enum class Status { kOk, kWarning, kFailed, kSkipped };

// "ok", "warning", "failed", "skipped".
const char* statusName(Status status);

struct CheckResult {
  std::string id;     // stable, for scripts: "config", "master-name", "rest", ...
  std::string title;  // for people: "configuration file", ...
  Status status = Status::kOk;
  std::string detail;  // what was found
  std::string action;  // what to do; set for every warning and failure
  // Figures the detail tells, also given as numbers to a program (--json).
  std::vector<std::pair<std::string, long long>> figures;
  // Yes-or-no findings the detail tells, given as booleans (--json).
  std::vector<std::pair<std::string, bool>> findings;
};

CheckResult okResult(const std::string& id, const std::string& title, const std::string& detail);
CheckResult warningResult(const std::string& id, const std::string& title, const std::string& detail,
                          const std::string& action);
CheckResult failedResult(const std::string& id, const std::string& title, const std::string& detail,
                         const std::string& action);
// A check that could not run because an earlier one failed; `reason` says which.
CheckResult skippedResult(const std::string& id, const std::string& title, const std::string& reason);

}  // namespace doctor

#endif  // KSCDP_TOOLS_DOCTOR_CHECK_RESULT_H_
