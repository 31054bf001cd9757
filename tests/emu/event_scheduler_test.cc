// The card's event scheduler, in-process: routing to the waiters of a process,
// group and id, each sender's bounded share of a queue, refusals, waits ending
// with their process or the card, and the acknowledgement of a VF change.
#include "emu/card/event_scheduler.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <driver_hal.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv::emu {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;

constexpr pid_t kA = 101;
constexpr pid_t kB = 102;
constexpr pid_t kSender = 200;
constexpr uint32_t kDev = 0;
constexpr uint32_t kGroup = 5;

uint64_t Bit(uint32_t eventId) {
    return 1ULL << eventId;
}

class EventSchedulerTest : public ::testing::Test {
  protected:
    // Gives `pid` group `grp` with thread `thread` subscribed to `bitmap`.
    void Listen(pid_t pid, uint32_t grp, uint32_t thread, uint64_t bitmap) {
        // A group's second thread finds it made (DRV_ERROR_REPEATED_INIT).
        scheduler_.CreateGroup(pid, kDev, grp, GRP_TYPE_BIND_CP_CPU);
        ASSERT_EQ(scheduler_.Subscribe(pid, kDev, grp, thread, bitmap), DRV_ERROR_NONE);
    }
    int32_t Send(pid_t dst, uint32_t grp, uint32_t eventId, const std::string& msg = "",
                 pid_t src = kSender) {
        HalEschedSubmitEvent event;
        event.set_dst_pid(dst);
        event.set_grp_id(grp);
        event.set_event_id(eventId);
        event.set_msg(msg);
        return scheduler_.Submit(src, event);
    }
    // What thread `thread` of (pid, grp) takes without waiting, `most` events
    // at most: their messages in order, one word each.
    std::string Take(pid_t pid, uint32_t grp, uint32_t thread, size_t most = SIZE_MAX) {
        std::string taken;
        EventRecord record;
        while (most-- > 0 &&
               scheduler_.Wait(pid, kDev, grp, thread, 0, &record) == DRV_ERROR_NONE) {
            taken += (taken.empty() ? "" : " ") + record.msg();
        }
        return taken;
    }

    // The janitor passes every 10 ms, in the one test that starts it.
    EventScheduler scheduler_{std::chrono::milliseconds(10)};
};

// Events are queued before any thread subscribes, as a process's first are;
// each is taken once, in order, and none holds up another.
TEST_F(EventSchedulerTest, AnEventReachesOnlyAWaiterOfItsProcessGroupAndIdInOrder) {
    for (pid_t pid : {kA, kB}) {
        ASSERT_EQ(scheduler_.CreateGroup(pid, kDev, kGroup, GRP_TYPE_BIND_CP_CPU), DRV_ERROR_NONE);
    }
    ASSERT_EQ(scheduler_.CreateGroup(kA, kDev, kGroup + 1, GRP_TYPE_BIND_CP_CPU), DRV_ERROR_NONE);
    for (const char* msg : {"4a", "4b"}) {
        ASSERT_EQ(Send(kA, kGroup, 4, msg), DRV_ERROR_NONE);
    }
    ASSERT_EQ(Send(kB, kGroup, 3, "B"), DRV_ERROR_NONE);
    ASSERT_EQ(Send(kA, kGroup + 1, 3, "A-other-group"), DRV_ERROR_NONE);
    ASSERT_EQ(Send(kA, kGroup, 3, "A"), DRV_ERROR_NONE);
    Listen(kA, kGroup, 0, Bit(3));
    Listen(kA, kGroup, 1, Bit(4));
    Listen(kA, kGroup + 1, 0, Bit(3));
    Listen(kB, kGroup, 0, Bit(3));

    EXPECT_EQ(Take(kA, kGroup, 0), "A");
    EXPECT_EQ(Take(kA, kGroup, 1), "4a 4b");
    EXPECT_EQ(Take(kB, kGroup, 0), "B");
    EXPECT_EQ(Take(kA, kGroup + 1, 0), "A-other-group");
}

// A sender gone wrong fills its own share of a group's queue, never another
// sender's; each event taken makes room for one more. The trace keeps only
// the newest lines.
TEST_F(EventSchedulerTest, EachSenderHasABoundedShareOfAGroupsQueue) {
    Listen(kA, kGroup, 0, Bit(3));
    Listen(kA, kGroup + 1, 0, Bit(3));
    constexpr uint32_t kShare = 1024;
    for (uint32_t i = 0; i < kShare; ++i) {
        ASSERT_EQ(Send(kA, kGroup, 3, "flood"), DRV_ERROR_NONE) << i;
    }
    EXPECT_EQ(Send(kA, kGroup, 3, "flood"), DRV_ERROR_BUSY);
    const std::string trace = scheduler_.DescribeEvents();
    EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), 512);
    EXPECT_THAT(trace.substr(trace.rfind('\n', trace.size() - 2)),
                HasSubstr("refused: queue full"));
    EXPECT_EQ(Send(kA, kGroup, 3, "honest", kSender + 1), DRV_ERROR_NONE);
    EXPECT_EQ(Send(kA, kGroup + 1, 3, "other group"), DRV_ERROR_NONE);

    EXPECT_EQ(Take(kA, kGroup, 0, 1), "flood");
    EXPECT_EQ(Send(kA, kGroup, 3, "room-again"), DRV_ERROR_NONE);
    EXPECT_EQ(Send(kA, kGroup, 3, "flood"), DRV_ERROR_BUSY);
    for (uint32_t i = 1; i < kShare; ++i) {
        ASSERT_EQ(Take(kA, kGroup, 0, 1), "flood") << i;
    }
    EXPECT_EQ(Take(kA, kGroup, 0), "honest room-again");
}

TEST_F(EventSchedulerTest, CallsOnWhatWasNeverMadeAreRefused) {
    EventRecord record;
    EXPECT_EQ(scheduler_.Detach(kA, kDev), DRV_ERROR_UNINIT);
    ASSERT_EQ(scheduler_.Attach(kA, kDev), DRV_ERROR_NONE);
    EXPECT_EQ(scheduler_.Detach(kA, kDev), DRV_ERROR_NONE);
    EXPECT_EQ(scheduler_.Detach(kA, kDev), DRV_ERROR_UNINIT);

    EXPECT_EQ(scheduler_.Wait(kA, kDev, kGroup, 0, 0, &record), DRV_ERROR_UNINIT);
    EXPECT_EQ(scheduler_.Wait(kB, kDev, kGroup, 0, 0, &record), DRV_ERROR_PROCESS_EXIT);
    EXPECT_EQ(scheduler_.Subscribe(kA, kDev, kGroup, 0, Bit(3)), DRV_ERROR_UNINIT);
    ASSERT_EQ(scheduler_.CreateGroup(kA, kDev, kGroup, GRP_TYPE_BIND_CP_CPU), DRV_ERROR_NONE);
    EXPECT_EQ(scheduler_.CreateGroup(kA, kDev, kGroup, GRP_TYPE_BIND_DP_CPU),
              DRV_ERROR_REPEATED_INIT);
    EXPECT_EQ(scheduler_.Wait(kA, kDev, kGroup, 0, 0, &record), DRV_ERROR_NO_SUBSCRIBE);
    EXPECT_EQ(Send(kB, kGroup, 3), DRV_ERROR_NOT_EXIST);
    EXPECT_EQ(Send(kA, kGroup + 1, 3), DRV_ERROR_NOT_EXIST);
    EXPECT_THAT(scheduler_.DescribeEvents(),
                HasSubstr("event 3/0 200 -> 101 group 6 len 0 refused: no such group"));
}

// Injected events go to the VF management client, when there is one. An id
// no thread can subscribe to would sit in its queue for good: it is refused,
// injected or submitted, as is an over-long message.
TEST_F(EventSchedulerTest, InjectedOrSubmittedBadIdsAndLengthsAreRefused) {
    InjectEvent inject;
    inject.set_grp_id(kGroup);
    EXPECT_EQ(scheduler_.Inject(inject), DRV_ERROR_NOT_EXIST);
    Listen(kA, kGroup, 0, ~0ULL);
    ASSERT_EQ(scheduler_.RegisterVmngClient(kA), DRV_ERROR_NONE);

    const std::string longest(EVENT_MAX_MSG_LEN, 'x');
    struct Case {
        uint32_t eventId;
        std::string msg;
        int32_t expected;
    };
    const Case cases[] = {
        {EVENT_MAX_NUM - 1, longest, DRV_ERROR_NONE},
        {EVENT_MAX_NUM, "", DRV_ERROR_INVALID_VALUE},
        {0xffffffffu, "", DRV_ERROR_INVALID_VALUE},
        {3, longest + "x", DRV_ERROR_INVALID_VALUE},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Send(kA, kGroup, c.eventId, c.msg), c.expected)
            << c.eventId << " " << c.msg.size();
        inject.set_event_id(c.eventId);
        inject.set_msg(c.msg);
        EXPECT_EQ(scheduler_.Inject(inject), c.expected) << c.eventId << " " << c.msg.size();
    }
    // What was accepted can be taken: two events of the highest id.
    EXPECT_EQ(Take(kA, kGroup, 0), longest + " " + longest);
}

// One event ends one wait, the other goes on; the card's stop ends it.
TEST_F(EventSchedulerTest, AnEventEndsOneWaitAndTheCardsStopEndsTheRest) {
    Listen(kA, kGroup, 0, Bit(3));
    Listen(kA, kGroup, 1, Bit(3));
    std::atomic<int32_t> rc[2] = {{-1}, {-1}};
    std::vector<std::thread> waiters;
    for (uint32_t thread = 0; thread < 2; ++thread) {
        waiters.emplace_back([&, thread] {
            EventRecord record;
            rc[thread] = scheduler_.Wait(kA, kDev, kGroup, thread, -1, &record);
        });
    }
    ASSERT_EQ(Send(kA, kGroup, 3), DRV_ERROR_NONE);
    EXPECT_TRUE(
        test::WaitFor([&] { return rc[0] == DRV_ERROR_NONE || rc[1] == DRV_ERROR_NONE; }, 30s));
    std::this_thread::sleep_for(50ms);  // room for the other waiter to end wrongly
    scheduler_.Stop();
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_THAT((std::vector<int32_t>{rc[0], rc[1]}),
                UnorderedElementsAre(DRV_ERROR_NONE, DRV_ERROR_PROCESS_EXIT));
}

TEST_F(EventSchedulerTest, AProcessThatHasGoneIsForgottenAndItsWaitEnds) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    const pid_t self = ::getpid();
    Listen(child, 0, 0, Bit(3));
    Listen(self, 0, 0, Bit(3));
    ASSERT_EQ(scheduler_.RegisterVmngClient(child), DRV_ERROR_NONE);
    ASSERT_EQ(Send(self, 0, 3, "kept"), DRV_ERROR_NONE);
    scheduler_.Start();

    int32_t rc = -1;
    std::thread waiter([&] {
        EventRecord record;
        rc = scheduler_.Wait(child, kDev, 0, 0, 30000, &record);
    });
    ::kill(child, SIGKILL);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    waiter.join();
    EXPECT_EQ(rc, DRV_ERROR_PROCESS_EXIT);
    // Gone as VF management client too; the living process keeps its events.
    VfChange change;
    change.set_timeout_ms(1);
    int32_t ack = 0;
    EXPECT_EQ(scheduler_.ChangeVf(change, &ack), DRV_ERROR_NOT_EXIST);
    EXPECT_EQ(Take(self, 0, 0), "kept");
}

// The card hears of a process's end as it ends, before its parent has reaped
// it, not at the janitor's next round: the thread serving its wait is free at
// once, and what the process had made is gone.
TEST(EventSchedulerExitTest, AProcessIsForgottenAsItEndsNotAtTheNextRound) {
    EventScheduler scheduler(std::chrono::hours(1));
    scheduler.Start();
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    ASSERT_EQ(scheduler.CreateGroup(child, kDev, 0, GRP_TYPE_BIND_CP_CPU), DRV_ERROR_NONE);
    ASSERT_EQ(scheduler.Subscribe(child, kDev, 0, 0, Bit(3)), DRV_ERROR_NONE);
    std::atomic<int32_t> rc{-1};
    std::thread waiter([&] {
        EventRecord record;
        rc = scheduler.Wait(child, kDev, 0, 0, -1, &record);
    });
    ::kill(child, SIGKILL);
    EXPECT_TRUE(test::WaitFor([&] { return rc != -1; }, 30s));
    // Still a zombie: only its exit told the card.
    EXPECT_EQ(::kill(child, 0), 0);
    scheduler.Stop();
    waiter.join();
    EXPECT_EQ(rc, DRV_ERROR_PROCESS_EXIT);
    EXPECT_EQ(scheduler.Subscribe(child, kDev, 0, 0, Bit(3)), DRV_ERROR_UNINIT);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
}

TEST_F(EventSchedulerTest, AVfChangeIsAcknowledgedOnlyByTheClientAnsweringThatChange) {
    constexpr pid_t kClient = 300;
    Listen(kClient, 0, 0, Bit(EVENT_CCPU_CTRL_MSG));
    ASSERT_EQ(scheduler_.RegisterVmngClient(kClient), DRV_ERROR_NONE);
    VfChange change;
    change.set_create(true);
    change.set_vf_id(3);
    change.set_timeout_ms(30000);
    int32_t rc = -1;
    int32_t ack = 0;
    std::thread driver([&] { rc = scheduler_.ChangeVf(change, &ack); });

    EventRecord notice;
    ASSERT_EQ(scheduler_.Wait(kClient, kDev, 0, 0, 30000, &notice), DRV_ERROR_NONE);
    auto answer = [&](pid_t pid, uint32_t subevent, int32_t value) {
        return scheduler_.Ack(pid, kDev, EVENT_CCPU_CTRL_MSG, subevent,
                              std::string(reinterpret_cast<const char*>(&value), sizeof(value)));
    };
    EXPECT_EQ(answer(kA, notice.subevent_id(), 9), DRV_ERROR_NOT_EXIST);
    EXPECT_EQ(answer(kClient, notice.subevent_id() + 1, 9), DRV_ERROR_NOT_EXIST);
    EXPECT_EQ(answer(kClient, notice.subevent_id(), -7), DRV_ERROR_NONE);
    driver.join();
    EXPECT_EQ(rc, DRV_ERROR_NONE);
    EXPECT_EQ(ack, -7);
    // The change is over: a second answer is one too many.
    EXPECT_EQ(answer(kClient, notice.subevent_id(), 1), DRV_ERROR_NOT_EXIST);
}

}  // namespace
}  // namespace orv::emu
