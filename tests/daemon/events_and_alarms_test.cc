// What the daemon releases for a host process, inside a sandbox: the custom
// kernels' directories lie at the sandbox's fixed paths.
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "daemon/orvdaemon.h"

namespace orv {
namespace {

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// The directory is named by VF, then host pid; a host process's end must take
// its own kernels only, never another process's or another VF's.
TEST(EventsAndAlarmsTest, CleanResourceRemovesOnlyThatHostProcessesCustomKernels) {
    const std::string root = "/home/QelvarUser/cust_aicpu_";
    for (const char* name : {"2_77", "77_2", "2_770", "3_77"}) {
        ASSERT_EQ(mkdir((root + name).c_str(), 0750), 0) << name;
    }
    OrvDaemon::CleanResource(77, 2);
    EXPECT_FALSE(Exists(root + "2_77"));
    for (const char* name : {"77_2", "2_770", "3_77"}) {
        EXPECT_TRUE(Exists(root + name)) << name;
    }
}

}  // namespace
}  // namespace orv
