// Text that others wrote is read line by line within bounds: a line is never
// held beyond its bound, a file never read beyond its line bound, and a FIFO
// makes nobody wait.
#include "platform/bounded_lines.h"

#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv {
namespace {

// Every line handed over, with its cut flag, and how the read ended.
std::pair<std::vector<std::string>, LinesEnd> ReadAll(const std::string& path,
                                                      const LineBounds& bounds, bool stopAtCut) {
    std::vector<std::string> lines;
    LinesEnd end = ForEachBoundedLine(path, bounds, [&](const std::string& line, bool cut) {
        lines.push_back(line + (cut ? " (cut)" : ""));
        return !(cut && stopAtCut);
    });
    return {lines, end};
}

TEST(BoundedLinesTest, LinesAreCutAtTheirBoundAndFilesAtTheirs) {
    const std::string dir = test::MakeTempDir("orv-lines");
    const std::string path = dir + "/text";
    test::WriteFile(path, "short\n" + std::string(100, 'x') + "\nlast");
    const LineBounds bounds{10, 5};
    auto [lines, end] = ReadAll(path, bounds, false);
    EXPECT_EQ(end, LinesEnd::kEnd);
    EXPECT_EQ(lines, (std::vector<std::string>{"short", "xxxxxxxxxx (cut)", "last"}));
    std::tie(lines, end) = ReadAll(path, bounds, true);
    EXPECT_EQ(end, LinesEnd::kLineTooLong);
    EXPECT_EQ(DescribeLinesEnd(end, bounds), "a line is longer than 10 bytes");

    test::WriteFile(path, "1\n2\n3\n4\n5\n6\n");
    std::tie(lines, end) = ReadAll(path, bounds, false);
    EXPECT_EQ(end, LinesEnd::kTooManyLines);
    EXPECT_EQ(lines.size(), 5u);
    test::WriteFile(path, "1\n2\n3\n4\n5\n");
    EXPECT_EQ(ReadAll(path, bounds, false).second, LinesEnd::kEnd) << "five lines are the bound";

    const std::string fifo = dir + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(ReadAll(fifo, bounds, false).second, LinesEnd::kEnd) << "a FIFO without writer";
    EXPECT_EQ(ReadAll(dir + "/missing", bounds, false).second, LinesEnd::kUnreadable);
    const std::string link = dir + "/link";
    ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
    EXPECT_EQ(ReadAll(link, bounds, false).second, LinesEnd::kUnreadable)
        << "a link is not followed";
    test::RemoveTree(dir);
}

}  // namespace
}  // namespace orv
