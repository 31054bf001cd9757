// What a package's unpacked tree may hold, and how staged kernels take the
// install directory's place.
#include "package/kernel_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv {
namespace {

using ::testing::HasSubstr;

class KernelTreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        work_ = test::MakeTempDir("orv-tree");
        root_ = work_ + "/tree";
        mkdir(root_.c_str(), 0700);
        mkdir((root_ + "/dev").c_str(), 0755);
        mkdir((root_ + "/dev/sub").c_str(), 0755);
        test::WriteFile(root_ + "/dev/a.so", "a");
    }
    void TearDown() override { test::RemoveTree(work_); }

    bool Exists(const std::string& path) const {
        struct stat st {};
        return lstat(path.c_str(), &st) == 0;
    }

    std::string work_;
    std::string root_;
};

// Links are resolved as the kernel would, following the tree's own links.
TEST_F(KernelTreeTest, ALinkIsInsideOnlyWhenItsWholeResolutionStaysInTheTree) {
    symlink(".", (root_ + "/dev/self").c_str());
    symlink("b", (root_ + "/dev/loop_a").c_str());
    symlink("loop_a", (root_ + "/dev/b").c_str());
    struct Case {
        const char* target;  // of a link made in dev/
        bool inside;
    };
    const Case cases[] = {
        {"a.so", true},
        {"sub/../a.so", true},
        {"../dev/a.so", true},
        {"..", true},
        {"missing/../../dev/a.so", true},  // dangling parts read as they are written
        {"../..", false},
        {"sub/../../..", false},
        {"/usr/lib64", false},
        {"self/../..", false},  // self is dev itself: its ".." is the root's
        {"self/self/..", true},
        {"loop_a", false},  // never ends
    };
    int rootFd = open(root_.c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(rootFd, 0);
    int n = 0;
    for (const Case& c : cases) {
        std::string link = "dev/link" + std::to_string(n++);
        ASSERT_EQ(symlink(c.target, (root_ + "/" + link).c_str()), 0);
        EXPECT_EQ(LinkStaysInside(rootFd, link), c.inside) << c.target;
    }
    close(rootFd);
}

TEST_F(KernelTreeTest, OnlyFilesDirectoriesAndLinksInsideMakeATreeAndModesLoseTheirRisks) {
    std::string reason;
    symlink("a.so", (root_ + "/dev/alias.so").c_str());
    link((root_ + "/dev/a.so").c_str(), (root_ + "/dev/sub/same.so").c_str());
    chmod((root_ + "/dev/a.so").c_str(), 04777);
    chmod((root_ + "/dev/sub").c_str(), 01777);
    EXPECT_TRUE(CheckKernelTree(root_, &reason)) << reason;
    struct stat st {};
    ASSERT_EQ(stat((root_ + "/dev/a.so").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    ASSERT_EQ(stat((root_ + "/dev/sub").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);

    // What tar itself never makes from a package, but a tree must not hold:
    // a socket, and a file that also has a name outside the tree.
    const std::string outside = work_ + "/outside";
    test::WriteFile(outside, "not the package's");
    ASSERT_EQ(mknod((root_ + "/dev/sock").c_str(), S_IFSOCK | 0644, 0), 0);
    EXPECT_FALSE(CheckKernelTree(root_, &reason));
    EXPECT_THAT(reason, HasSubstr("member [dev/sock] is a socket"));
    unlink((root_ + "/dev/sock").c_str());
    ASSERT_EQ(link(outside.c_str(), (root_ + "/dev/hard.so").c_str()), 0);
    EXPECT_FALSE(CheckKernelTree(root_, &reason));
    EXPECT_THAT(reason,
                HasSubstr("member [dev/hard.so] is a hard link to a file outside the package"));
    EXPECT_EQ(test::ReadFile(outside), "not the package's");
}

TEST_F(KernelTreeTest, StagedKernelsTakeTheInstallDirectorysPlaceOrLeaveNoTrace) {
    std::string install = work_ + "/kernels/3";
    {
        StagedKernels first(install);
        std::string reason;
        ASSERT_TRUE(first.Ok(&reason)) << reason;
        EXPECT_EQ(first.Dir().rfind(work_ + "/kernels/.3.new-", 0), 0u)
            << "beside it, on its file system";
        test::WriteFile(first.Dir() + "/old", "old");
        ASSERT_TRUE(first.Commit(&reason)) << reason;
    }
    EXPECT_EQ(test::ReadFile(install + "/old"), "old");
    struct stat st {};
    ASSERT_EQ(stat(install.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    {
        StagedKernels refused(install);
        test::WriteFile(refused.Dir() + "/new", "new");
    }
    {
        StagedKernels second(install);
        test::WriteFile(second.Dir() + "/new", "new");
        std::string reason;
        ASSERT_TRUE(second.Commit(&reason)) << reason;
    }
    EXPECT_EQ(test::ReadFile(install + "/new"), "new");
    EXPECT_FALSE(Exists(install + "/old"));
    std::string listing;
    ASSERT_EQ(test::RunProgram({"/bin/ls", "-A", work_ + "/kernels"}, &listing), 0);
    EXPECT_EQ(listing, "3\n") << "neither the refused tree nor the replaced one is left";
}

// A package made of `files` (name to content) with tar and gzip; its
// descriptor, open for reading.
int MakeArchive(const std::string& dir, const std::map<std::string, std::string>& files) {
    std::string tree = dir + "/src";
    mkdir(tree.c_str(), 0755);
    for (const auto& [name, content] : files) {
        test::WriteFile(tree + "/" + name, content);
    }
    std::string archive = dir + "/package.tar.gz";
    if (test::RunProgram({"/bin/tar", "-czf", archive, "-C", tree, "."}) != 0) {
        return -1;
    }
    return open(archive.c_str(), O_RDONLY | O_CLOEXEC);
}

// What a package may uncompress to, and the members it may hold, are
// bounded: beyond, the package is refused with nothing of it kept. An unpack
// under way stops when asked to.
TEST_F(KernelTreeTest, AnUnpackStopsAtItsBoundOrWhenAskedTo) {
    int package = MakeArchive(work_, {{"zeros.so", std::string(4u << 20, '\0')}});
    ASSERT_GE(package, 0);
    std::string out = work_ + "/out";
    mkdir(out.c_str(), 0700);
    std::string reason;
    UnpackControl bounded;
    bounded.maxArchiveBytes = 1u << 20;
    EXPECT_FALSE(UnpackPackage(package, out, &reason, &bounded));
    EXPECT_EQ(reason, "it uncompresses to more than 1048576 bytes");
    EXPECT_FALSE(bounded.shortage);
    EXPECT_FALSE(Exists(out + "/zeros.so"));

    std::atomic<bool> cancel{true};
    UnpackControl cancelled;
    cancelled.cancel = &cancel;
    EXPECT_FALSE(UnpackPackage(package, out, &reason, &cancelled));
    EXPECT_EQ(reason, "the install was stopped");

    UnpackControl fewMembers;
    fewMembers.maxMembers = 1;
    EXPECT_FALSE(UnpackPackage(package, out, &reason, &fewMembers));
    EXPECT_EQ(reason, "it holds more than 1 members");
    UnpackControl shortListing;
    shortListing.maxListingBytes = 4;
    EXPECT_FALSE(UnpackPackage(package, out, &reason, &shortListing));
    EXPECT_EQ(reason, "its listing is longer than 4 bytes");

    UnpackControl whole;
    EXPECT_TRUE(UnpackPackage(package, out, &reason, &whole)) << reason;
    EXPECT_EQ(test::ReadFile(out + "/zeros.so").size(), 4u << 20);
    close(package);
}

// A tree is removed without following a link out of it, however deep.
TEST_F(KernelTreeTest, RemovingATreeFollowsNoLinkOutOfIt) {
    const std::string outside = work_ + "/outside";
    mkdir(outside.c_str(), 0755);
    test::WriteFile(outside + "/kept", "kept");
    std::string deep = root_;
    for (int level = 0; level < 40; ++level) {
        deep += "/d";
        mkdir(deep.c_str(), 0755);
    }
    symlink(outside.c_str(), (deep + "/out").c_str());
    symlink(outside.c_str(), (root_ + "/dev/out").c_str());
    EXPECT_TRUE(RemoveTree(root_));
    EXPECT_FALSE(Exists(root_));
    EXPECT_EQ(test::ReadFile(outside + "/kept"), "kept");
}
}  // namespace
}  // namespace orv
