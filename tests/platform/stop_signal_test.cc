// Pauses that the daemon's stop cuts short, and that keep their length while
// it runs.
#include "platform/stop_signal.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

namespace orv {
namespace {

using namespace std::chrono_literals;

TEST(StopSignalTest, APauseLastsItsPeriodUntilTheSignalIsRaised) {
    StopSignal& signal = StopSignal::Instance();
    signal.Lower();
    EXPECT_TRUE(signal.Pause(1ms)) << "a pause with no stop runs out";

    // A long pause under way ends when the stop comes, not when it runs out.
    bool ranOut = true;
    std::thread pauser([&] { ranOut = signal.Pause(std::chrono::hours(1)); });
    std::this_thread::sleep_for(50ms);
    signal.Raise();
    pauser.join();
    EXPECT_FALSE(ranOut);

    EXPECT_FALSE(signal.Pause(std::chrono::hours(1))) << "once raised, pauses end at once";
    signal.Lower();
    EXPECT_TRUE(signal.Pause(1ms)) << "the next start lowers it again";
}

}  // namespace
}  // namespace orv
