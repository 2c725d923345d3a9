// The chain rule, and the records each handler refuses.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "fake_platform.h"
#include "service_error.h"
#include "services/AlertServiceImpl.h"
#include "services/BackupServiceImpl.h"
#include "services/JobServiceImpl.h"
#include "services/KSServiceFactory.h"
#include "services/ServiceData.h"

namespace {

// A handler that notes each visit in an AlertServiceData and forwards, or
// throws when told to.
class RecordingHandler : public KSUServiceImpl {
 public:
  explicit RecordingHandler(std::string name, int ownResult = 0) : m_name(std::move(name)), m_ownResult(ownResult) {}

  int handleRequest(ServiceData* data) override {
    ++m_visits;
    if (m_throws) throw KSServiceException(130, m_name + " failed");
    if (auto* alert = dynamic_cast<AlertServiceData*>(data)) alert->messageKey += m_name;
    const int forwarded = forward(data);
    return m_next != nullptr ? forwarded : m_ownResult;
  }

  bool m_throws = false;
  int m_visits = 0;

 private:
  std::string m_name;
  int m_ownResult;
};

TEST(ServiceFactory, OneInstancePerThreadUntilDestroyed) {
  KSServiceFactory* const first = KSServiceFactory::getInstance();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(KSServiceFactory::getInstance(), first);
  KSServiceFactory* otherThreads = nullptr;
  std::thread([&otherThreads] {
    otherThreads = KSServiceFactory::getInstance();
    KSServiceFactory::destroyInstance();
  }).join();
  EXPECT_NE(otherThreads, nullptr);
  EXPECT_NE(otherThreads, first);
  KSServiceFactory::destroyInstance();
}

TEST(ServiceChain, ForwardsTheSameRecordReturnsTheLastResultAndPassesExceptionsOn) {
  RecordingHandler first("a", 1), second("b", 2), third("c", 7);
  first.setNext(&second)->setNext(&third);  // setNext returns its argument
  AlertServiceData record;
  EXPECT_EQ(static_cast<ServiceInterface&>(first).handleRequest(&record), 7);
  EXPECT_EQ(record.messageKey, "abc");

  first.setNext(nullptr);
  EXPECT_EQ(first.handleRequest(&record), 1);
  EXPECT_EQ(record.messageKey, "abca");

  first.setNext(&second);
  third.m_throws = true;  // reaches the caller unchanged
  EXPECT_EQ(unit::serviceError([&] { first.handleRequest(&record); }), "130 c failed");
  EXPECT_EQ(record.messageKey, "abcaab");
}

TEST(ServiceChain, HandlersRefuseRecordsOfAnotherKindBeforeDoingAnything) {
  fake::resetPlatform();
  BackupServiceImpl backup;
  JobServiceImpl job;
  HostServiceImpl host;
  AlertServiceImpl alert;
  RecordingHandler successor("s");
  for (KSUServiceImpl* handler : std::initializer_list<KSUServiceImpl*>{&backup, &job, &host, &alert}) {
    handler->setNext(&successor);
  }
  fake::logLines.clear();
  AlertServiceData alertRecord;
  EvictionServiceData evictionRecord;
  const std::string notForWorker = "20 Invalid shared common object is passed to worker service";
  const std::string notAnAlert =
      "20 Invalid shared object passed to worker service. Internal error: casting to AlertServiceData failed.";
  // A null record and one of another kind take the same way in each handler
  // but the host service.
  const struct {
    ServiceInterface* handler;
    ServiceData* record;
    std::string error;
  } cases[] = {
      {&backup, nullptr, notForWorker},
      {&job, &alertRecord, notForWorker},
      {&host, nullptr, "20 Invalid shared common object passed to worker service"},
      {&host, &evictionRecord, notAnAlert},
      {&alert, nullptr, notAnAlert},
  };
  for (const auto& c : cases) EXPECT_EQ(unit::serviceError([&] { c.handler->handleRequest(c.record); }), c.error);
  EXPECT_EQ(successor.m_visits, 0);
  EXPECT_TRUE(fake::logLines.empty());
  EXPECT_TRUE(fake::ksqd.calls.empty());
  EXPECT_TRUE(fake::curl.clients.empty());
  EXPECT_EQ(fake::notifications.constructed, 0);
}

}  // namespace
