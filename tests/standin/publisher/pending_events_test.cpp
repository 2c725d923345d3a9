// The notification publisher's queue, driven the way its connection drives
// it: hand over, acknowledge, lose the connection, hand over again.
#include "platform/standin/publisher/pending_events.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

// A connection that takes payloads while it has room, numbering them from
// `nextId`, and notes what it was given.
struct Connection {
  size_t room;
  int nextId;
  std::vector<std::string> given;

  standin::PendingEvents::Publish publish() {
    return [this](const std::string& payload, int* messageId) {
      if (given.size() >= room) return false;
      given.push_back(payload);
      *messageId = nextId++;
      return true;
    };
  }
};

TEST(PendingEvents, HandsOverOldestFirstWithinTheWindowAndKeepsTheUnacknowledgedInPlace) {
  standin::PendingEvents events(4);
  events.releaseHeld();  // no backlog
  events.push("a", 11);
  events.push("b", 0);
  events.push("c", 13);
  EXPECT_FALSE(events.full());
  events.push("d", 0);
  EXPECT_TRUE(events.full());

  Connection first{10, 1, {}};
  events.handOver(3, first.publish());
  EXPECT_EQ(first.given, (std::vector<std::string>{"a", "b", "c"}));
  events.handOver(3, first.publish());  // the window is full
  EXPECT_EQ(first.given.size(), 3u);

  EXPECT_EQ(events.acknowledge(2), 0);   // "b", in memory only
  EXPECT_EQ(events.acknowledge(2), 0);   // already done
  EXPECT_EQ(events.acknowledge(4), 0);   // "d" was never handed over
  EXPECT_EQ(events.acknowledge(1), 11);  // "a"
  EXPECT_EQ(events.size(), 2u);
  EXPECT_FALSE(events.full());

  events.handOver(3, first.publish());
  EXPECT_EQ(first.given, (std::vector<std::string>{"a", "b", "c", "d"}));

  // The connection goes before "c" and "d" are acknowledged: the next one
  // gets them again, in order, until it refuses one.
  events.takeBack();
  EXPECT_EQ(events.acknowledge(3), 0);
  Connection second{1, 1, {}};
  events.handOver(3, second.publish());
  EXPECT_EQ(second.given, std::vector<std::string>{"c"});
  events.push("e", 15);
  EXPECT_EQ(events.acknowledge(1), 13);

  Connection third{5, 20, {}};
  events.handOver(3, third.publish());  // "d" and "e", still unacknowledged
  const standin::PendingEvents::Dropped dropped = events.clear();
  EXPECT_EQ(dropped.inOutbox, 1u);      // "e"
  EXPECT_EQ(dropped.inMemoryOnly, 1u);  // "d"
  EXPECT_EQ(events.size(), 0u);
  events.push("f", 0);  // a cleared queue starts as a new one
  events.handOver(3, third.publish());
  EXPECT_EQ(third.given, (std::vector<std::string>{"d", "e", "f"}));
}

// What an earlier run left in the outbox goes first; events pushed while it
// loads, in the outbox under later ids, follow it once, in the order pushed.
TEST(PendingEvents, PutsTheBacklogAheadOfWhatWasPushedWhileItLoaded) {
  standin::PendingEvents events(5);
  events.push("own-0", 0);  // not stored: never taken for part of the backlog
  events.push("own-5", 5);
  EXPECT_EQ(events.queueBacklog({{1, "old-1", 0}, {2, "old-2", 0}}), 2u);
  events.push("own-6", 6);
  EXPECT_TRUE(events.full());
  EXPECT_EQ(events.queueBacklog({{3, "old-3", 0}, {5, "own-5", 0}, {6, "own-6", 0}}), 1u);
  // The outbox was set aside: what was held is stored again, from id 1.
  int64_t next = 1;
  events.storeHeldAgain([&next](const std::string&) { return next++; });
  events.releaseHeld();
  events.push("own-7", 7);
  Connection connection{10, 1, {}};
  events.handOver(10, connection.publish());
  EXPECT_EQ(connection.given,
            (std::vector<std::string>{"old-1", "old-2", "old-3", "own-0", "own-5", "own-6", "own-7"}));
  EXPECT_EQ(events.acknowledge(5), 2);  // "own-5", stored again under id 2
}

// A backlog's wait counts from when its events were raised, which the outbox
// keeps across restarts, not from when this process loaded them; a raise
// time that is unknown (0) or ahead of the clock counts from now.
TEST(PendingEvents, BacklogWaitsSinceItsEventsWereRaised) {
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  struct Case {
    int64_t raised;
    double lowest, highest;  // the oldest wait, in seconds
  } cases[] = {{now - 300, 299, 302}, {0, 0, 2}, {now + 60, 0, 2}};
  for (const Case& c : cases) {
    standin::PendingEvents events(5);
    events.releaseHeld();
    events.queueBacklog({{1, "old-1", c.raised}, {2, "old-2", 0}});
    const standin::metrics::Waiting waiting = events.waiting();
    const double oldest = std::chrono::duration<double>(std::chrono::steady_clock::now() - waiting.oldest).count();
    EXPECT_EQ(waiting.count, 2u) << c.raised - now;
    EXPECT_GE(oldest, c.lowest) << c.raised - now;
    EXPECT_LE(oldest, c.highest) << c.raised - now;
  }
}

// push() asks for the connection's thread only when that thread has nothing
// else to hand over: a burst of events wakes it once, and events held back
// for the backlog, or waiting for a connection, never.
TEST(PendingEvents, AsksForTheConnectionOnlyWhenItHadTakenEverything) {
  standin::PendingEvents events(10);
  EXPECT_FALSE(events.push("held", 0));  // the loader queues it
  events.releaseHeld();
  EXPECT_FALSE(events.push("a", 0));  // "held" is not taken yet
  Connection connection{10, 1, {}};
  events.handOver(5, connection.publish());
  EXPECT_TRUE(events.push("b", 0));
  EXPECT_FALSE(events.push("c", 0));
  EXPECT_FALSE(events.push("d", 0));
  events.handOver(5, connection.publish());
  events.acknowledge(1);
  EXPECT_TRUE(events.push("e", 0));
  events.takeBack();  // the connection is gone: the next one takes all again
  EXPECT_FALSE(events.push("f", 0));
}

// A connection owes an acknowledgement from the oldest hand-over, or from the
// last acknowledgement when that came later; nothing once all are done or
// taken back.
TEST(PendingEvents, OwesAnAcknowledgementSinceTheOldestHandOverOrTheLastAcknowledgement) {
  using Clock = standin::PendingEvents::Clock;
  standin::PendingEvents events(10);
  events.releaseHeld();  // no backlog
  events.push("a", 0);
  events.push("b", 0);
  EXPECT_FALSE(events.owedSince());
  Connection connection{10, 1, {}};
  const Clock::time_point beforeHandOver = Clock::now();
  events.handOver(1, connection.publish());
  const Clock::time_point afterFirst = Clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  events.handOver(2, connection.publish());  // "b" joins: the debt still runs from "a"
  ASSERT_TRUE(events.owedSince());
  EXPECT_GE(*events.owedSince(), beforeHandOver);
  EXPECT_LE(*events.owedSince(), afterFirst);

  const Clock::time_point beforeAcknowledgement = Clock::now();
  events.acknowledge(2);  // "b" before "a": progress all the same
  EXPECT_GE(*events.owedSince(), beforeAcknowledgement);
  events.acknowledge(1);
  EXPECT_FALSE(events.owedSince());

  events.push("c", 0);
  events.handOver(1, connection.publish());
  EXPECT_TRUE(events.owedSince());
  events.takeBack();
  EXPECT_FALSE(events.owedSince());
}

// Events that the outbox failed to take wait in memory and go into it later,
// oldest first, stopping at the first the outbox refuses again, never while a
// backlog loads; one acknowledged meanwhile needs storing no more.
TEST(PendingEvents, StoresWhatWaitsInMemoryOnlyInOrderOnceTheOutboxTakesWritesAgain) {
  standin::PendingEvents events(10);
  events.push("held", 0);  // a backlog is loading
  std::vector<std::string> stored;
  int64_t nextId = 100;
  const auto store = [&](const std::string& payload) -> int64_t {
    if (payload == "refused") return 0;
    stored.push_back(payload);
    return nextId++;
  };
  EXPECT_FALSE(events.storeMemoryOnly(store));
  EXPECT_TRUE(stored.empty());
  events.releaseHeld();
  events.push("a", 7);
  events.push("refused", 0);
  events.push("b", 0);
  EXPECT_EQ(events.memoryOnly(), 3u);

  EXPECT_FALSE(events.storeMemoryOnly(store));
  EXPECT_EQ(stored, std::vector<std::string>{"held"});
  EXPECT_EQ(events.memoryOnly(), 2u);

  Connection connection{2, 1, {}};
  events.handOver(3, connection.publish());            // "held" and "a"
  events.handOver(3, Connection{5, 3, {}}.publish());  // "refused" as message 3
  EXPECT_EQ(events.acknowledge(3), 0);                 // delivered before it was stored
  EXPECT_EQ(events.memoryOnly(), 1u);
  EXPECT_TRUE(events.storeMemoryOnly(store));
  EXPECT_EQ(stored, (std::vector<std::string>{"held", "b"}));
  EXPECT_EQ(events.acknowledge(1), 100);  // "held", under its new id
  const standin::PendingEvents::Dropped dropped = events.clear();
  EXPECT_EQ(dropped.inOutbox, 2u);  // "a" and "b"
  EXPECT_EQ(dropped.inMemoryOnly, 0u);
}

}  // namespace
