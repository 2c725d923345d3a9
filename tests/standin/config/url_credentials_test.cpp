// Credentials in a URL: found, and never shown.
#include "platform/standin/config/url_credentials.h"

#include <gtest/gtest.h>

#include "case_table.h"

namespace {

TEST(UrlCredentials, PasswordsAreMaskedAndCredentialsFound) {
  for (const cases::Row& c : cases::read("url_credentials.cases")) {
    EXPECT_EQ(standin::urlWithoutPassword(c[0]), c[1]) << c[0];
    EXPECT_EQ(standin::hasUrlCredentials(c[0]), c[2] == "yes") << c[0];
  }
}

}  // namespace
