// The reader of the suites' data files refuses a malformed row, naming its
// file and line, rather than reading a typo as some other row.
#include "case_table.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>

namespace {

TEST(CaseTable, RefusesAMalformedRowNamingItsFileAndLine) {
  const struct {
    const char* line;
    const char* refusal;
  } malformed[] = {
      {R"("open  1)", "t.cases:2: a string is not closed"},
      {R"("quote escaped\")", "t.cases:2: a string is not closed"},
      {R"("ends in \)", "t.cases:2: a backslash ends the line"},
      {R"("\x4")", "t.cases:2: \\x needs two hex digits"},
      {R"("\q")", "t.cases:2: unknown escape \\q"},
  };
  for (const auto& row : malformed) {
    std::istringstream in(std::string("\"fine\" 1\n") + row.line + "\n");
    try {
      cases::parse(in, "t.cases");
      ADD_FAILURE() << "accepted " << row.line;
    } catch (const std::runtime_error& refused) {
      EXPECT_STREQ(refused.what(), row.refusal) << row.line;
    }
  }
}

}  // namespace
