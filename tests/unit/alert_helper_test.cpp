#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "fake_platform.h"
#include "services/AlertServiceImpl.h"

namespace {

TEST(AlertHelper, PriorityTexts) {
  const struct {
    int32_t value;
    const char* text;
  } cases[] = {{0, "LOW"}, {1, "MEDIUM"}, {2, "HIGH"}, {3, ""}, {-1, ""}, {INT32_MAX, ""}};
  for (const auto& c : cases) {
    EXPECT_EQ(AlertHelper::getPriority(static_cast<AlertPriority>(c.value)), c.text) << c.value;
  }
}

TEST(AlertHelper, SeverityTexts) {
  const struct {
    int32_t value;
    const char* text;
  } cases[] = {{0, "INFO"},     {1, "DEBUG"},  {2, "WARNING"}, {3, "ERROR"},
               {4, "CRITICAL"}, {5, "NOTICE"}, {6, "UNKNOWN"}, {-1, "UNKNOWN"}};
  for (const auto& c : cases) {
    EXPECT_EQ(AlertHelper::getSeverity(static_cast<AlertSeverity>(c.value)), c.text) << c.value;
  }
}

TEST(AlertHelper, ConvertsCctidToUuidAndLogsEachConversion) {
  const struct {
    const char* cctid;
    const char* uuid;
  } cases[] = {
      {"0123456789abcdef0123456789abcdef", "01234567-89ab-cdef-0123-456789abcdef"},
      {"", ""},
      {"12345678", "12345678"},
      {"123456789", "12345678-9"},
      {"0123456789ABCDEF0123456789ABCDEF01", "01234567-89AB-CDEF-0123-456789ABCDEF01"},
      {"01234567-89ab-cdef-0123-456789abcdef", "01234567--89a-b-cd-ef-0-123-456789abcdef"},
  };
  for (const auto& c : cases) {
    fake::resetPlatform();
    EXPECT_EQ(AlertHelper::convertCCTIDToUUID(c.cctid), c.uuid) << c.cctid;
    const fake::LogLine expected{2, "AlertHelper::convertCCTIDToUUID",
                                 std::string("Converting CCTID: ") + c.cctid + ", UUID: " + c.uuid};
    EXPECT_EQ(fake::logLines(), std::vector<fake::LogLine>{expected}) << c.cctid;
  }
}

}  // namespace
