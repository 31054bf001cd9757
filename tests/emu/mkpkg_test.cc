// orv-emu-mkpkg --from-dir: the archive holds what the directory holds, as it
// is there, so that tests can build any package, hostile ones included.
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emu/pkg/package_signature.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

TEST(MkpkgTest, APackageFromADirectoryKeepsLinksHardLinksSpecialFilesAndRewrittenNames) {
    std::string work = test::MakeTempDir("orv-mkpkg");
    std::string dir = work + "/tree";
    std::string device = dir + "/aicpu_kernels_device";
    mkdir(dir.c_str(), 0755);
    mkdir(device.c_str(), 0755);
    test::WriteFile(device + "/version.info", "Name=Velkan512-aicpu_syskernels.tar.gz\n");
    test::WriteFile(device + "/a.so", "a");
    ASSERT_EQ(link((device + "/a.so").c_str(), (device + "/hard.so").c_str()), 0);
    ASSERT_EQ(symlink("/home/victim", (device + "/sand_box").c_str()), 0);
    ASSERT_EQ(mkfifo((device + "/pipe").c_str(), 0644), 0);
    test::WriteFile(device + "/UP", "up");
    std::string package = work + "/3_Velkan512-aicpu_syskernels.tar.gz";
    std::string output;
    ASSERT_EQ(test::RunProgram(
                  {test::BinDir() + "/orv-emu-mkpkg", "--out", package, "--from-dir", dir,
                   "--transform", "s,^aicpu_kernels_device/UP$,aicpu_kernels_device/../../up,"},
                  &output),
              0)
        << output;

    ASSERT_EQ(
        test::RunProgram({"/bin/sh", "-c", "tar -P -tvzf '" + package + "' 2>/dev/null"}, &output),
        0);
    EXPECT_THAT(output, HasSubstr("aicpu_kernels_device/version.info"));
    EXPECT_THAT(output,
                HasSubstr("aicpu_kernels_device/hard.so link to aicpu_kernels_device/a.so"));
    EXPECT_THAT(output, HasSubstr("aicpu_kernels_device/sand_box -> /home/victim"));
    EXPECT_THAT(output, HasSubstr("\np"));  // the FIFO stays a FIFO
    EXPECT_THAT(output, HasSubstr("aicpu_kernels_device/../../up"));
    EXPECT_THAT(output, Not(HasSubstr("aicpu_kernels_device/UP")));

    // Signed like any other package: the signature rides in the gzip header.
    std::string content = test::ReadFile(package);
    size_t body = 0;
    std::string comment;
    ASSERT_TRUE(emu::ParseGzipHeader(content, &body, &comment));
    EXPECT_EQ(comment.rfind(emu::kSignaturePrefix, 0), 0u);

    // Options that shape a package of the tool's own make no sense with a directory.
    EXPECT_EQ(test::RunProgram({test::BinDir() + "/orv-emu-mkpkg", "--out", package, "--from-dir",
                                dir, "--pad-bytes", "10"},
                               &output),
              2);
    test::RemoveTree(work);
}

}  // namespace
}  // namespace orv
