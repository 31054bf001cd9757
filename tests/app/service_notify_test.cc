// The notification protocol of Type=notify services, against a real datagram
// socket at a path and at an abstract name.
#include "app/service_notify.h"

#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;

TEST(ServiceNotifyTest, AddressesArePathsOrAbstractNamesAndNothingElse) {
    sockaddr_un address{};
    socklen_t length = 0;
    ASSERT_TRUE(NotifySocketAddress("/run/systemd/notify", &address, &length));
    EXPECT_STREQ(address.sun_path, "/run/systemd/notify");
    EXPECT_EQ(length, offsetof(sockaddr_un, sun_path) + sizeof("/run/systemd/notify"));

    ASSERT_TRUE(NotifySocketAddress("@orv/notify", &address, &length));
    EXPECT_EQ(address.sun_path[0], '\0');
    EXPECT_EQ(std::string(address.sun_path + 1, 10), "orv/notify");
    EXPECT_EQ(length, offsetof(sockaddr_un, sun_path) + 11) << "no terminator in an abstract name";

    for (const std::string& bad :
         {std::string(), std::string("@"), std::string("/"), std::string("relative/sock"),
          "/" + std::string(sizeof(address.sun_path), 'x')}) {
        EXPECT_FALSE(NotifySocketAddress(bad, &address, &length)) << bad;
    }
}

TEST(ServiceNotifyTest, NoticesArriveWholeAtAPathAndAtAnAbstractName) {
    std::string dir = test::MakeTempDir("orv-notify");
    std::string abstract = "@orv-notify-test-" + std::to_string(getpid());
    for (const std::string& name : {dir + "/notify.sock", abstract}) {
        test::NotifyListener listener(name);
        ASSERT_TRUE(listener.Bound()) << name;
        ServiceNotifier notifier(name);
        EXPECT_TRUE(notifier.Enabled());
        ASSERT_TRUE(notifier.Notify("READY=1\nSTATUS=Serving host requests on 1 device"));
        ASSERT_TRUE(notifier.Notify("STOPPING=1"));
        EXPECT_EQ(listener.Receive(5s), "READY=1\nSTATUS=Serving host requests on 1 device")
            << name;
        EXPECT_EQ(listener.Receive(5s), "STOPPING=1") << name;
    }
    test::RemoveTree(dir);
}

TEST(ServiceNotifyTest, TheVariableIsTakenOutOfTheEnvironmentAndWithoutItNothingIsSent) {
    std::string dir = test::MakeTempDir("orv-notify");
    test::NotifyListener listener(dir + "/notify.sock");
    ASSERT_TRUE(listener.Bound());
    ASSERT_EQ(setenv("ORV_TEST_NOTIFY_SOCKET", (dir + "/notify.sock").c_str(), 1), 0);
    ServiceNotifier taken = ServiceNotifier::FromEnvironment("ORV_TEST_NOTIFY_SOCKET");
    EXPECT_EQ(getenv("ORV_TEST_NOTIFY_SOCKET"), nullptr) << "children must not inherit it";
    EXPECT_TRUE(taken.Notify("READY=1"));
    EXPECT_EQ(listener.Receive(5s), "READY=1");

    ServiceNotifier unset = ServiceNotifier::FromEnvironment("ORV_TEST_NOTIFY_SOCKET");
    EXPECT_FALSE(unset.Enabled());
    EXPECT_FALSE(unset.Notify("READY=1"));
    EXPECT_FALSE(ServiceNotifier(dir + "/nobody-listens.sock").Notify("READY=1"));
    EXPECT_EQ(listener.Receive(200ms), std::nullopt);
    test::RemoveTree(dir);
}

}  // namespace
}  // namespace orv
