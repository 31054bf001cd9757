#include <bounds_checked.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

// A destination with guard bytes on both sides that must never change.
struct Guarded {
    static constexpr size_t kGuard = 16;
    explicit Guarded(size_t size) : size(size), bytes(size + 2 * kGuard, '#') {}
    char* Dest() { return bytes.data() + kGuard; }
    bool GuardsIntact() const {
        for (size_t i = 0; i < kGuard; ++i) {
            if (bytes[i] != '#' || bytes[kGuard + size + i] != '#') {
                return false;
            }
        }
        return true;
    }
    size_t size;
    std::string bytes;
};

TEST(BoundsCheckedTest, MemcpyRefusesWhatDoesNotFitAndClearsTheDestination) {
    Guarded dest(8);
    const char source[] = "0123456789";
    EXPECT_EQ(memcpy_s(dest.Dest(), 8, source, 8), EOK);
    EXPECT_EQ(std::string(dest.Dest(), 8), "01234567");
    EXPECT_EQ(memcpy_s(dest.Dest(), 8, source, 9), BOUNDS_ERANGE);
    EXPECT_EQ(std::string(dest.Dest(), 8), std::string(8, '\0'));
    EXPECT_EQ(memcpy_s(dest.Dest(), 8, nullptr, 1), BOUNDS_EINVAL);
    EXPECT_EQ(memcpy_s(nullptr, 8, source, 1), BOUNDS_EINVAL);
    EXPECT_EQ(memcpy_s(dest.Dest(), 0, source, 0), BOUNDS_EINVAL);
    EXPECT_EQ(memcpy_s(dest.Dest(), 8, dest.Dest() + 2, 4), BOUNDS_EOVERLAP);
    EXPECT_TRUE(dest.GuardsIntact());
}

TEST(BoundsCheckedTest, MemsetFillsAtMostTheDestination) {
    Guarded dest(8);
    EXPECT_EQ(memset_s(dest.Dest(), 8, 'x', 4), EOK);
    EXPECT_EQ(memset_s(dest.Dest(), 8, 'y', 100), BOUNDS_ERANGE);
    EXPECT_EQ(std::string(dest.Dest(), 8), std::string(8, 'y'));
    EXPECT_TRUE(dest.GuardsIntact());
}

TEST(BoundsCheckedTest, SprintfFailsInsteadOfTruncating) {
    Guarded dest(8);
    EXPECT_EQ(sprintf_s(dest.Dest(), 8, "%s", "1234567"), 7);
    EXPECT_STREQ(dest.Dest(), "1234567");
    EXPECT_EQ(sprintf_s(dest.Dest(), 8, "%s", "12345678"), -1);
    EXPECT_STREQ(dest.Dest(), "");
    EXPECT_EQ(sprintf_s(dest.Dest(), 8, "%s", ""), 0);
    EXPECT_TRUE(dest.GuardsIntact());
}

int Format(char* dest, size_t destMax, size_t count, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
int Format(char* dest, size_t destMax, size_t count, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    int n = vsnprintf_s(dest, destMax, count, fmt, args);
    va_end(args);
    return n;
}

TEST(BoundsCheckedTest, VsnprintfHonoursTheSmallerOfCountAndDestination) {
    Guarded dest(16);
    EXPECT_EQ(Format(dest.Dest(), 16, 4, "%d", 1234), 4);
    EXPECT_EQ(Format(dest.Dest(), 16, 4, "%d", 12345), -1);
    EXPECT_STREQ(dest.Dest(), "");
    EXPECT_EQ(Format(dest.Dest(), 4, 100, "%s", "abc"), 3);
    EXPECT_EQ(Format(dest.Dest(), 4, 100, "%s", "abcd"), -1);
    EXPECT_EQ(Format(nullptr, 4, 3, "%s", "a"), -1);
    EXPECT_TRUE(dest.GuardsIntact());
}

}  // namespace
