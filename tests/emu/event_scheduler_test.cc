// The card's event scheduler, in-process: an event reaches only a waiter of
// its process, group and id, events nobody waits for keep, bad calls are
// refused, waits end when the process goes or the card stops, and a VF change
// is acknowledged only by the VF management client.
#include "emu/card/event_scheduler.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <driver_hal.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orv::emu {
namespace {

using ::testing::HasSubstr;

constexpr pid_t kA = 101;
constexpr pid_t kB = 102;
constexpr pid_t kSender = 200;
constexpr uint32_t kDev = 0;
constexpr uint32_t kGroup = 5;
// Long enough never to end a wait that should succeed, on any machine.
constexpr int32_t kPatientMs = 30000;

uint64_t Bit(uint32_t eventId) {
    return 1ULL << eventId;
}

HalEschedSubmitEvent Event(pid_t dst, uint32_t grp, uint32_t eventId, const std::string& msg = "",
                           uint32_t subeventId = 0) {
    HalEschedSubmitEvent event;
    event.set_dst_pid(dst);
    event.set_grp_id(grp);
    event.set_event_id(eventId);
    event.set_subevent_id(subeventId);
    event.set_msg(msg);
    return event;
}

class EventSchedulerTest : public ::testing::Test {
  protected:
    // Gives `pid` group `grp` with thread `thread` subscribed to `bitmap`.
    void Listen(pid_t pid, uint32_t grp, uint32_t thread, uint64_t bitmap) {
        // A group's second thread finds it made (DRV_ERROR_REPEATED_INIT).
        scheduler_.CreateGroup(pid, kDev, grp, GRP_TYPE_BIND_CP_CPU);
        ASSERT_EQ(scheduler_.Subscribe(pid, kDev, grp, thread, bitmap), DRV_ERROR_NONE);
    }
    // What thread `thread` of (pid, grp) takes without waiting: its message,
    // or "-" when nothing is there for it.
    std::string Take(pid_t pid, uint32_t grp, uint32_t thread) {
        EventRecord record;
        int32_t rc = scheduler_.Wait(pid, kDev, grp, thread, 0, &record);
        if (rc == DRV_ERROR_WAIT_TIMEOUT) {
            return "-";
        }
        EXPECT_EQ(rc, DRV_ERROR_NONE);
        return record.msg();
    }

    EventScheduler scheduler_;
};

TEST_F(EventSchedulerTest, AnEventReachesOnlyAWaiterOfItsProcessGroupAndId) {
    Listen(kA, kGroup, 0, Bit(3));
    Listen(kA, kGroup, 1, Bit(4));
    Listen(kA, kGroup + 1, 0, Bit(3));
    Listen(kB, kGroup, 0, Bit(3));

    EventRecord got;
    int32_t rc = -1;
    std::thread waiter([&] { rc = scheduler_.Wait(kA, kDev, kGroup, 0, kPatientMs, &got); });
    // Events the waiter must pass over, queued before the one for it.
    ASSERT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup, 4, "A id 4")), DRV_ERROR_NONE);
    ASSERT_EQ(scheduler_.Submit(kSender, Event(kB, kGroup, 3, "B")), DRV_ERROR_NONE);
    ASSERT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup + 1, 3, "A other group")),
              DRV_ERROR_NONE);
    ASSERT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup, 3, "A", 9)), DRV_ERROR_NONE);
    waiter.join();

    ASSERT_EQ(rc, DRV_ERROR_NONE);
    EXPECT_EQ(got.msg(), "A");
    EXPECT_EQ(got.event_id(), 3u);
    EXPECT_EQ(got.subevent_id(), 9u);
    EXPECT_EQ(got.src_pid(), kSender);
    EXPECT_EQ(got.grp_id(), kGroup);
    // Each of the others is still there for its own waiter, once.
    EXPECT_EQ(Take(kA, kGroup, 1), "A id 4");
    EXPECT_EQ(Take(kB, kGroup, 0), "B");
    EXPECT_EQ(Take(kA, kGroup + 1, 0), "A other group");
    struct Waiter {
        pid_t pid;
        uint32_t grp;
        uint32_t thread;
    };
    for (const Waiter& w : {Waiter{kA, kGroup, 0}, Waiter{kA, kGroup, 1}, Waiter{kB, kGroup, 0},
                            Waiter{kA, kGroup + 1, 0}}) {
        EXPECT_EQ(Take(w.pid, w.grp, w.thread), "-") << w.pid << " " << w.grp << " " << w.thread;
    }
}

TEST_F(EventSchedulerTest, EventsNobodyWaitsForKeepInOrderWithoutHoldingUpOthers) {
    ASSERT_EQ(scheduler_.CreateGroup(kA, kDev, kGroup, GRP_TYPE_BIND_CP_CPU), DRV_ERROR_NONE);
    // Queued before any thread subscribes, as a process's first events are.
    for (const char* msg : {"1", "2", "3"}) {
        ASSERT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup, 7, msg)), DRV_ERROR_NONE);
    }
    ASSERT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup, 3, "three")), DRV_ERROR_NONE);

    ASSERT_EQ(scheduler_.Subscribe(kA, kDev, kGroup, 0, Bit(3)), DRV_ERROR_NONE);
    EXPECT_EQ(Take(kA, kGroup, 0), "three");
    EXPECT_EQ(Take(kA, kGroup, 0), "-");

    ASSERT_EQ(scheduler_.Subscribe(kA, kDev, kGroup, 0, Bit(7)), DRV_ERROR_NONE);
    EXPECT_EQ(Take(kA, kGroup, 0), "1");
    EXPECT_EQ(Take(kA, kGroup, 0), "2");
    EXPECT_EQ(Take(kA, kGroup, 0), "3");
    EXPECT_EQ(Take(kA, kGroup, 0), "-");
}

// A sender gone wrong fills its own share of a group's queue, never another
// sender's; each event taken makes room for one more.
TEST_F(EventSchedulerTest, EachSenderHasABoundedShareOfAGroupsQueue) {
    Listen(kA, kGroup, 0, Bit(3));
    const uint32_t share = 1024;
    for (uint32_t i = 0; i < share; ++i) {
        ASSERT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup, 3, "flood")), DRV_ERROR_NONE) << i;
    }
    EXPECT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup, 3, "flood")), DRV_ERROR_BUSY);
    EXPECT_THAT(scheduler_.DescribeEvents(), HasSubstr("refused: queue full"));
    EXPECT_EQ(scheduler_.Submit(kSender + 1, Event(kA, kGroup, 3, "honest")), DRV_ERROR_NONE);
    // Another group of the same process has a queue of its own.
    Listen(kA, kGroup + 1, 0, Bit(3));
    EXPECT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup + 1, 3, "other group")), DRV_ERROR_NONE);

    EXPECT_EQ(Take(kA, kGroup, 0), "flood");
    EXPECT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup, 3, "room again")), DRV_ERROR_NONE);
    EXPECT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup, 3, "flood")), DRV_ERROR_BUSY);
    for (uint32_t i = 1; i < share; ++i) {
        ASSERT_EQ(Take(kA, kGroup, 0), "flood");
    }
    EXPECT_EQ(Take(kA, kGroup, 0), "honest");
    EXPECT_EQ(Take(kA, kGroup, 0), "room again");
    EXPECT_EQ(Take(kA, kGroup, 0), "-");
}

TEST_F(EventSchedulerTest, AnEventForNoGroupIsRefusedAndTraced) {
    ASSERT_EQ(scheduler_.CreateGroup(kA, kDev, kGroup, GRP_TYPE_BIND_CP_CPU), DRV_ERROR_NONE);
    EXPECT_EQ(scheduler_.Submit(kSender, Event(kB, kGroup, 3)), DRV_ERROR_NOT_EXIST);
    EXPECT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup + 1, 3)), DRV_ERROR_NOT_EXIST);
    EXPECT_THAT(scheduler_.DescribeEvents(),
                HasSubstr("event 3/0 200 -> 101 group 6 len 0 refused: no such group"));
}

TEST_F(EventSchedulerTest, IdsBeyondTheBitmapAndOversizedMessagesAreRefused) {
    Listen(kA, kGroup, 0, ~0ULL);
    ASSERT_EQ(scheduler_.RegisterVmngClient(kA), DRV_ERROR_NONE);
    const std::string longest(EVENT_MAX_MSG_LEN, 'x');
    const std::string tooLong(EVENT_MAX_MSG_LEN + 1, 'x');
    struct Case {
        uint32_t eventId;
        std::string msg;
        int32_t expected;
    };
    const Case cases[] = {
        {EVENT_MAX_NUM - 1, longest, DRV_ERROR_NONE},
        {EVENT_MAX_NUM, "", DRV_ERROR_INVALID_VALUE},
        {0xffffffffu, "", DRV_ERROR_INVALID_VALUE},
        {3, tooLong, DRV_ERROR_INVALID_VALUE},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup, c.eventId, c.msg)), c.expected)
            << "submit id " << c.eventId << " len " << c.msg.size();
        InjectEvent inject;
        inject.set_grp_id(kGroup);
        inject.set_event_id(c.eventId);
        inject.set_msg(c.msg);
        EXPECT_EQ(scheduler_.Inject(inject), c.expected)
            << "inject id " << c.eventId << " len " << c.msg.size();
    }
    // What was accepted can be taken: two events of the highest id.
    EXPECT_EQ(Take(kA, kGroup, 0), longest);
    EXPECT_EQ(Take(kA, kGroup, 0), longest);
    EXPECT_EQ(Take(kA, kGroup, 0), "-");
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
    ASSERT_EQ(scheduler_.Subscribe(kA, kDev, kGroup, 0, Bit(3)), DRV_ERROR_NONE);
    EXPECT_EQ(scheduler_.Wait(kA, kDev, kGroup, 0, 0, &record), DRV_ERROR_WAIT_TIMEOUT);
}

TEST_F(EventSchedulerTest, OneEventEndsTheWaitOfOneWaiterOnly) {
    Listen(kA, kGroup, 0, Bit(3));
    Listen(kA, kGroup, 1, Bit(3));
    std::atomic<int> delivered{0};
    std::atomic<int> timedOut{0};
    std::vector<std::thread> waiters;
    for (uint32_t thread = 0; thread < 2; ++thread) {
        waiters.emplace_back([&, thread] {
            EventRecord record;
            int32_t rc = scheduler_.Wait(kA, kDev, kGroup, thread, 300, &record);
            (rc == DRV_ERROR_NONE ? delivered : timedOut)++;
        });
    }
    ASSERT_EQ(scheduler_.Submit(kSender, Event(kA, kGroup, 3)), DRV_ERROR_NONE);
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(delivered, 1);
    EXPECT_EQ(timedOut, 1);
}

TEST_F(EventSchedulerTest, StopEndsEveryWait) {
    Listen(kA, kGroup, 0, Bit(3));
    int32_t rc = -1;
    std::thread waiter([&] {
        EventRecord record;
        rc = scheduler_.Wait(kA, kDev, kGroup, 0, -1, &record);
    });
    scheduler_.Stop();
    waiter.join();
    EXPECT_EQ(rc, DRV_ERROR_PROCESS_EXIT);
}

TEST(EventSchedulerJanitorTest, AProcessThatHasGoneIsForgottenAndItsWaitEnds) {
    EventScheduler scheduler(std::chrono::milliseconds(10));
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    const pid_t self = ::getpid();
    for (pid_t pid : {child, self}) {
        ASSERT_EQ(scheduler.CreateGroup(pid, kDev, 0, GRP_TYPE_BIND_CP_CPU), DRV_ERROR_NONE);
        ASSERT_EQ(scheduler.Subscribe(pid, kDev, 0, 0, Bit(EVENT_CCPU_CTRL_MSG)), DRV_ERROR_NONE);
    }
    ASSERT_EQ(scheduler.RegisterVmngClient(child), DRV_ERROR_NONE);
    ASSERT_EQ(scheduler.Submit(kSender, Event(self, 0, EVENT_CCPU_CTRL_MSG, "kept")),
              DRV_ERROR_NONE);
    scheduler.Start();

    int32_t rc = -1;
    std::thread waiter([&] {
        EventRecord record;
        rc = scheduler.Wait(child, kDev, 0, 0, kPatientMs, &record);
    });
    ::kill(child, SIGKILL);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    waiter.join();

    EXPECT_EQ(rc, DRV_ERROR_PROCESS_EXIT);
    // Gone as VF management client too; the living process keeps its events.
    VfChange change;
    change.set_timeout_ms(1);
    int32_t ack = 0;
    EXPECT_EQ(scheduler.ChangeVf(change, &ack), DRV_ERROR_NOT_EXIST);
    EventRecord record;
    ASSERT_EQ(scheduler.Wait(self, kDev, 0, 0, 0, &record), DRV_ERROR_NONE);
    EXPECT_EQ(record.msg(), "kept");
}

class VfChangeTest : public EventSchedulerTest {
  protected:
    static constexpr pid_t kClient = 300;
    void SetUp() override {
        Listen(kClient, 0, 0, Bit(EVENT_CCPU_CTRL_MSG));
        ASSERT_EQ(scheduler_.RegisterVmngClient(kClient), DRV_ERROR_NONE);
    }
    static std::string AckOf(int32_t value) {
        return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
    }
};

TEST_F(VfChangeTest, AChangeIsAcknowledgedOnlyByTheClientAnsweringThatChange) {
    VfChange change;
    change.set_create(true);
    change.set_vf_id(3);
    change.set_timeout_ms(kPatientMs);
    int32_t rc = -1;
    int32_t ack = 0;
    std::thread driver([&] { rc = scheduler_.ChangeVf(change, &ack); });

    EventRecord notice;
    ASSERT_EQ(scheduler_.Wait(kClient, kDev, 0, 0, kPatientMs, &notice), DRV_ERROR_NONE);
    EXPECT_EQ(notice.event_id(), uint32_t{EVENT_CCPU_CTRL_MSG});
    EXPECT_EQ(notice.src_pid(), 0);
    ASSERT_EQ(notice.msg().size(), 16u);
    uint32_t vf = 0;
    std::memcpy(&vf, notice.msg().data() + 4, sizeof(vf));
    EXPECT_EQ(vf, 3u);

    EXPECT_EQ(scheduler_.Ack(kA, kDev, EVENT_CCPU_CTRL_MSG, notice.subevent_id(), AckOf(9)),
              DRV_ERROR_NOT_EXIST);
    EXPECT_EQ(
        scheduler_.Ack(kClient, kDev, EVENT_CCPU_CTRL_MSG, notice.subevent_id() + 1, AckOf(9)),
        DRV_ERROR_NOT_EXIST);
    EXPECT_EQ(scheduler_.Ack(kClient, kDev, EVENT_CCPU_CTRL_MSG, notice.subevent_id(), AckOf(-7)),
              DRV_ERROR_NONE);
    driver.join();
    EXPECT_EQ(rc, DRV_ERROR_NONE);
    EXPECT_EQ(ack, -7);
    // The change is over: a second answer is one too many.
    EXPECT_EQ(scheduler_.Ack(kClient, kDev, EVENT_CCPU_CTRL_MSG, notice.subevent_id(), AckOf(1)),
              DRV_ERROR_NOT_EXIST);
}

TEST_F(VfChangeTest, AChangeNobodyAnswersTimesOutAndALateAnswerIsRefused) {
    VfChange change;
    change.set_vf_id(2);
    change.set_msg_len(8);
    change.set_timeout_ms(1);
    int32_t ack = 42;
    EXPECT_EQ(scheduler_.ChangeVf(change, &ack), DRV_ERROR_WAIT_TIMEOUT);
    EXPECT_EQ(ack, 42);

    EventRecord notice;
    ASSERT_EQ(scheduler_.Wait(kClient, kDev, 0, 0, 0, &notice), DRV_ERROR_NONE);
    EXPECT_EQ(notice.msg().size(), 8u);
    EXPECT_EQ(scheduler_.Ack(kClient, kDev, EVENT_CCPU_CTRL_MSG, notice.subevent_id(), AckOf(0)),
              DRV_ERROR_NOT_EXIST);
}

TEST_F(EventSchedulerTest, InjectedEventsGoToTheVfManagementClientUnlessAddressed) {
    InjectEvent inject;
    inject.set_subevent_id(6);
    inject.set_msg("to client");
    EXPECT_EQ(scheduler_.Inject(inject), DRV_ERROR_NOT_EXIST);

    Listen(kA, 0, 0, Bit(EVENT_CCPU_CTRL_MSG));
    Listen(kB, 0, 0, Bit(EVENT_CCPU_CTRL_MSG));
    ASSERT_EQ(scheduler_.RegisterVmngClient(kA), DRV_ERROR_NONE);
    EXPECT_EQ(scheduler_.Inject(inject), DRV_ERROR_NONE);
    inject.set_dst_pid(kB);
    inject.set_msg("to B");
    EXPECT_EQ(scheduler_.Inject(inject), DRV_ERROR_NONE);
    EXPECT_EQ(Take(kA, 0, 0), "to client");
    EXPECT_EQ(Take(kB, 0, 0), "to B");
}

TEST_F(EventSchedulerTest, TheTraceKeepsOnlyTheNewestLines) {
    for (uint32_t i = 0; i < 600; ++i) {
        scheduler_.Submit(kSender, Event(kA, kGroup, 3, "", i));
    }
    std::istringstream trace(scheduler_.DescribeEvents());
    std::vector<std::string> lines;
    for (std::string line; std::getline(trace, line);) {
        lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), 512u);
    EXPECT_THAT(lines.front(), HasSubstr("event 3/88 "));
    EXPECT_THAT(lines.back(), HasSubstr("event 3/599 "));
}

}  // namespace
}  // namespace orv::emu
