// OrvDaemon's lifecycle, inside a sandbox: the daemon's fixed paths and the
// card emulator are the sandbox's.
#include "daemon/orvdaemon.h"

#include <unistd.h>

#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv {
namespace {

using test::InsideControlSocket;
using test::LogCapture;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(OrvDaemonTest, StartTwiceStartsOnceAndDestroyTwiceTearsDownOnce) {
    LogCapture log;
    OrvDaemon* daemon = OrvDaemon::GetInstance();
    ASSERT_EQ(daemon->Start(), 0u);
    EXPECT_EQ(daemon->Start(), 0u);
    EXPECT_EQ(log.Count("[OrvDaemon] ORV Start enter"), 1u);
    EXPECT_EQ(log.Count("[OrvEVENT] Start Monitor HdcServer and OrvEventServer!!!"), 1u);
    daemon->Destroy();
    daemon->Destroy();
    EXPECT_EQ(log.Count("[OrvDaemon] OrvDaemon::Destroy() enter"), 1u);
    EXPECT_EQ(log.Count("[OrvDaemon] OrvDaemon::Destroy() exit"), 1u);
    EXPECT_FALSE(OrvDaemon::TEST_Started());
}

TEST(OrvDaemonTest, DestroyWithoutStartDoesNothing) {
    LogCapture log;
    OrvDaemon::GetInstance()->Destroy();
    EXPECT_FALSE(log.Contains("Destroy()"));
}
TEST(OrvDaemonTest, StartupQsAttachesTheDefaultGroupOnceAtStart) {
    LogCapture log;
    setenv("STARTUP_QS", "1", 1);
    OrvDaemon* daemon = OrvDaemon::GetInstance();
    ASSERT_EQ(daemon->Start(), 0u);
    EXPECT_TRUE(log.InOrder({"[OrvEVENT] orv need to attach default group in ZEB",
                             "ORV attach group[DEFAULT_MEM_GROUP] success.",
                             "[OrvEVENT] OrvDrvManager init success"}));
    EXPECT_THAT(
        test::ShowGroups(InsideControlSocket()),
        HasSubstr("group DEFAULT_MEM_GROUP owner 0 members attached " + std::to_string(getpid())));

    // Attached already: the driver is not asked again, so its armed failure stays unused.
    test::InjectFault(InsideControlSocket(), "halGrpAttach", 3, 1);
    EXPECT_EQ(daemon->AttachBuffGroup("DEFAULT_MEM_GROUP", 0), 0u);
    EXPECT_TRUE(log.Contains("ORV already attach group[DEFAULT_MEM_GROUP] need not attach again."));
    emu::CardRequest request;
    request.mutable_list_faults();
    EXPECT_THAT(test::Control(InsideControlSocket(), request).text(),
                HasSubstr("halGrpAttach code 3 remaining 1"));
    daemon->Destroy();
}

TEST(OrvDaemonTest, FailingDefaultGroupAttachFailsStartAtOnce) {
    LogCapture log;
    setenv("STARTUP_QS", "1", 1);
    test::InjectFault(InsideControlSocket(), "halGrpAttach", 3, 1);
    OrvDaemon* daemon = OrvDaemon::GetInstance();
    EXPECT_EQ(daemon->Start(), 1u);
    EXPECT_TRUE(
        log.Contains("[OrvDaemon]Fail to halGrpAttach groupName[DEFAULT_MEM_GROUP], ret[3]"));
    EXPECT_TRUE(
        log.Contains("[OrvDaemon]Fail to halGrpAttach groupName[DEFAULT_MEM_GROUP] when start"));
    EXPECT_FALSE(log.Contains("OrvDrvManager init success"));
    // A failed start still counts as started.
    EXPECT_EQ(daemon->Start(), 0u);
    EXPECT_EQ(log.Count("[OrvDaemon] ORV Start enter"), 1u);
    daemon->Destroy();
    EXPECT_TRUE(log.Contains("[OrvDaemon] OrvDaemon::Destroy() exit"));
}

TEST(OrvDaemonTest, StartupQsOtherThanOneAttachesNothing) {
    LogCapture log;
    setenv("STARTUP_QS", "true", 1);
    OrvDaemon* daemon = OrvDaemon::GetInstance();
    ASSERT_EQ(daemon->Start(), 0u);
    EXPECT_FALSE(log.Contains("attach default group"));
    EXPECT_THAT(test::ShowGroups(InsideControlSocket()),
                Not(HasSubstr("attached " + std::to_string(getpid()))));
    daemon->Destroy();
}

}  // namespace
}  // namespace orv
