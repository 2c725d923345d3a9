// The doctor's results as people read them (one line each) and as scripts
// read them (one JSON document).
#ifndef KSCDP_TOOLS_DOCTOR_REPORT_H_
#define KSCDP_TOOLS_DOCTOR_REPORT_H_

#include <cstdio>
#include <vector>

#include "check_result.h"

namespace doctor {

bool anyFailed(const std::vector<CheckResult>& results);

// "<status> <title>: <detail>", then " -> <action>" for a warning or failure.
void printText(const std::vector<CheckResult>& results, FILE* out);

// {"ok": <nothing failed>, "checks": [{"id", "title", "status", "detail"[, "action"]}, ...]}
// False when the document could not be made.
bool printJson(const std::vector<CheckResult>& results, FILE* out);

}  // namespace doctor

#endif  // KSCDP_TOOLS_DOCTOR_REPORT_H_
