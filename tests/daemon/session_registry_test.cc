// The session registry's edges, in-process: bounds, the per-entry limit and
// where it comes from, reuse of an existing session, and removal only by the
// HDC session that made it.
#include <cstdlib>

#include <gtest/gtest.h>

#include "daemon/orvdaemon.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

class SessionRegistryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("AICPU_MAX_NUM", "2", 1);
        daemon_->SetMaxProcessPerDevice();
    }
    void TearDown() override { daemon_->ClearOrvMap(); }

    std::shared_ptr<OrvImpl> Create(uint32_t device, int32_t vf, uint32_t hostPid,
                                    uint32_t sessionId = 1, uint32_t rankSize = 0,
                                    bool startQs = false) {
        return daemon_->CreateOrvImpl(device, sessionId, rankSize, 0, hostPid, 0, "sign", 0, "103",
                                      vf, 0, startQs, "");
    }

    OrvDaemon* daemon_ = OrvDaemon::GetInstance();
};

TEST_F(SessionRegistryTest, SessionLimitComesFromAicpuMaxNumWithinOneTo128) {
    struct Case {
        const char* value;  // null: unset
        uint32_t limit;
        bool warned;
    };
    const Case cases[] = {
        {"1", 1, false},  {"128", 128, false}, {"64", 64, false},
        {"0", 32, true},  {"129", 32, true},   {"abc", 32, true},
        {"-1", 32, true}, {"", 32, false},     {nullptr, 32, false},
    };
    for (const Case& c : cases) {
        test::LogCapture log;
        if (c.value == nullptr) {
            unsetenv("AICPU_MAX_NUM");
        } else {
            setenv("AICPU_MAX_NUM", c.value, 1);
        }
        daemon_->SetMaxProcessPerDevice();
        const char* shown = c.value != nullptr ? c.value : "(unset)";
        EXPECT_EQ(daemon_->GetMaxProcessPerDevice(), c.limit) << shown;
        EXPECT_EQ(log.Contains("out of range, please check it"), c.warned) << shown;
        bool present = c.value != nullptr && *c.value != '\0';
        EXPECT_EQ(log.Contains("Not found AICPU_MAX_NUM in env"), !present) << shown;
    }
    unsetenv("AICPU_MAX_NUM");
}

TEST_F(SessionRegistryTest, DeviceAndVfBoundsAreInclusiveOf3And16) {
    test::LogCapture log;
    EXPECT_NE(Create(3, 16, 1), nullptr);
    EXPECT_EQ(Create(4, 0, 2), nullptr);
    EXPECT_TRUE(log.Contains("Invalid deviceId[4] in session[1]"));
    EXPECT_EQ(Create(0, 17, 3), nullptr);
    EXPECT_EQ(Create(0, -1, 4), nullptr);
    EXPECT_TRUE(log.Contains("Invalid vfId[-1] in os[0] session[1]"));
}

TEST_F(SessionRegistryTest, TheLimitCountsHostProcessesOfOneDeviceAndVf) {
    test::LogCapture log;
    EXPECT_NE(Create(0, 0, 10), nullptr);
    EXPECT_NE(Create(0, 0, 11), nullptr);
    EXPECT_EQ(Create(0, 0, 12), nullptr);
    EXPECT_TRUE(log.Contains("reach max aicpu-runner per device 2, hostPids[10, 11]"));
    // Other VFs and devices have limits of their own; a known host pid is no new session.
    EXPECT_NE(Create(0, 1, 12), nullptr);
    EXPECT_NE(Create(1, 0, 12), nullptr);
    EXPECT_NE(Create(0, 0, 11), nullptr);
}

TEST_F(SessionRegistryTest, ARepeatedStartReusesTheSessionAndKeepsItsHdcSession) {
    std::shared_ptr<OrvImpl> first = Create(0, 0, 20, /*sessionId=*/5);
    std::shared_ptr<OrvImpl> again = Create(0, 0, 20, /*sessionId=*/9);
    EXPECT_EQ(first, again);
    EXPECT_EQ(again->GetSessionId(), 5u);
    EXPECT_EQ(daemon_->GetOrvImpl(0, 0, 20), first);
}

TEST_F(SessionRegistryTest, OnlyTheOwningHdcSessionErasesASession) {
    std::shared_ptr<OrvImpl> session = Create(0, 2, 30, /*sessionId=*/7);
    test::LogCapture log;
    EXPECT_EQ(daemon_->EraseOrvImpl(0, 2, 30, 8), nullptr);
    EXPECT_TRUE(log.Contains(
        "the OrvImpl we got is with session of [7], but what we want to delete is with session "
        "of [8], skip HDCAbnormalMsgProc"));
    EXPECT_EQ(daemon_->GetOrvImpl(0, 2, 30), session);
    EXPECT_EQ(daemon_->EraseOrvImpl(0, 2, 31, 7), nullptr);
    EXPECT_EQ(daemon_->EraseOrvImpl(1, 2, 30, 7), nullptr);
    EXPECT_EQ(daemon_->EraseOrvImpl(0, 2, 30, 7), session);
    EXPECT_EQ(daemon_->GetOrvImpl(0, 2, 30), nullptr);
}

TEST_F(SessionRegistryTest, DeletedSessionsFreeTheirPlaceAndLiveOnWhileHeld) {
    std::shared_ptr<OrvImpl> held = Create(0, 0, 40);
    ASSERT_NE(Create(0, 0, 41), nullptr);
    test::LogCapture log;
    daemon_->DeleteOrvImpl(0, 0, 40);
    daemon_->DeleteOrvImpl(0, 0, 99);
    EXPECT_EQ(log.Count("[OrvDaemon] Success to delete OrvImpl with deviceId[0] vfId[0]"), 2u);
    daemon_->DeleteOrvImpl(3, 5, 40);
    EXPECT_TRUE(log.Contains("is not exist in orvImplMap_."));
    EXPECT_EQ(daemon_->GetOrvImpl(0, 0, 40), nullptr);
    EXPECT_EQ(held->GetSessionId(), 1u);
    EXPECT_NE(Create(0, 0, 42), nullptr) << "the deleted session's place is free again";
}

}  // namespace
}  // namespace orv
