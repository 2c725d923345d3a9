#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "services/KSServiceException.h"
#include "services/KSUServiceImpl.h"
#include "services/ServiceData.h"

namespace {

// A handler that notes its visit in an AlertServiceData and forwards, or
// throws when told to.
class RecordingHandler : public KSUServiceImpl {
 public:
  RecordingHandler(std::string name, int ownResult = 0) : name_(std::move(name)), ownResult_(ownResult) {}

  int handleRequest(ServiceData* data) override {
    if (throwCode_ != 0) throw KSServiceException(throwCode_, name_ + " failed");
    if (auto* alert = dynamic_cast<AlertServiceData*>(data)) alert->messageKey += name_;
    const int forwarded = forward(data);
    return m_next != nullptr ? forwarded : ownResult_;
  }

  int throwCode_ = 0;

 private:
  std::string name_;
  int ownResult_;
};

TEST(ServiceRecords, InsertAttributeKeepsTheFirstValue) {
  AlertServiceData alert;
  alert.insertAttribute("uuid", "a");
  alert.insertAttribute("uuid", "b");
  alert.insertAttribute("", "");
  EXPECT_EQ(alert.attributes, (std::map<std::string, std::string>{{"", ""}, {"uuid", "a"}}));
}

TEST(ServiceChain, ForwardsTheSameRecordAndReturnsTheLastResult) {
  RecordingHandler first("a", 1), second("b", 2), third("c", 7);
  // setNext returns its argument, so links chain in one expression.
  first.setNext(&second)->setNext(&third);
  AlertServiceData record;
  EXPECT_EQ(static_cast<ServiceInterface&>(first).handleRequest(&record), 7);
  EXPECT_EQ(record.messageKey, "abc");

  first.setNext(nullptr);
  EXPECT_EQ(first.handleRequest(&record), 1);
  EXPECT_EQ(record.messageKey, "abca");
}

TEST(ServiceChain, ExceptionFromASuccessorReachesTheCallerUnchanged) {
  RecordingHandler first("a"), second("b");
  first.setNext(&second);
  second.throwCode_ = 130;
  AlertServiceData record;
  try {
    first.handleRequest(&record);
    FAIL() << "no exception";
  } catch (const KSServiceException& e) {
    EXPECT_EQ(e.m_code, 130);
    EXPECT_STREQ(e.what(), "b failed");
  }
  EXPECT_EQ(record.messageKey, "a");
}

TEST(ServiceException, WhatReturnsTheMessage) {
  EXPECT_STREQ(KSServiceException(20, "").what(), "");
  const KSServiceException e(8775, "no master");
  EXPECT_EQ(e.m_code, 8775);
  EXPECT_STREQ(e.what(), "no master");
}

}  // namespace
