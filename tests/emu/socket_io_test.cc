#include "emu/common/socket_io.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include <gtest/gtest.h>

namespace orv::emu {
namespace {

class FramingTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0); }
    void TearDown() override {
        close(fds_[0]);
        if (fds_[1] >= 0) {
            close(fds_[1]);
        }
    }
    void WriteRaw(const std::string& bytes) {
        ASSERT_TRUE(WriteFull(fds_[1], bytes.data(), bytes.size()));
    }
    void CloseWriter() {
        close(fds_[1]);
        fds_[1] = -1;
    }
    static std::string Header(uint32_t length) {
        uint32_t big = htonl(length);
        return std::string(reinterpret_cast<const char*>(&big), 4);
    }
    int fds_[2] = {-1, -1};
};

TEST_F(FramingTest, FramesKeepTheirBoundariesIncludingEmptyOnes) {
    ASSERT_TRUE(WriteFrame(fds_[1], "first"));
    ASSERT_TRUE(WriteFrame(fds_[1], ""));
    ASSERT_TRUE(WriteFrame(fds_[1], std::string(70000, 'z')));
    std::string payload;
    ASSERT_EQ(ReadFrame(fds_[0], &payload, 1u << 20), FrameStatus::kOk);
    EXPECT_EQ(payload, "first");
    ASSERT_EQ(ReadFrame(fds_[0], &payload, 1u << 20), FrameStatus::kOk);
    EXPECT_EQ(payload, "");
    ASSERT_EQ(ReadFrame(fds_[0], &payload, 1u << 20), FrameStatus::kOk);
    EXPECT_EQ(payload, std::string(70000, 'z'));
}

TEST_F(FramingTest, LengthIsBigEndian) {
    WriteRaw(Header(3) + "abc");
    std::string payload;
    ASSERT_EQ(ReadFrame(fds_[0], &payload, 16), FrameStatus::kOk);
    EXPECT_EQ(payload, "abc");
}

TEST_F(FramingTest, AnnouncedLengthOverTheLimitIsRefusedUnread) {
    WriteRaw(Header(1048577));
    std::string payload;
    EXPECT_EQ(ReadFrame(fds_[0], &payload, 1048576), FrameStatus::kTooLong);
}

TEST_F(FramingTest, EndOfStreamBetweenFramesIsAClosureAndInsideOneATruncation) {
    std::string payload;
    WriteRaw(Header(10) + "short");
    CloseWriter();
    EXPECT_EQ(ReadFrame(fds_[0], &payload, 64), FrameStatus::kTruncated);

    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    ASSERT_TRUE(WriteFull(pair[1], "\0\0", 2));
    close(pair[1]);
    EXPECT_EQ(ReadFrame(pair[0], &payload, 64), FrameStatus::kTruncated);
    close(pair[0]);

    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    close(pair[1]);
    EXPECT_EQ(ReadFrame(pair[0], &payload, 64), FrameStatus::kClosed);
    close(pair[0]);
}

// A reader pays for what arrives, never for what is announced; a frame must
// begin, and end, within its time; its admission may refuse it.
TEST_F(FramingTest, AFrameCostsWhatArrivedAndMustComeInTime) {
    WriteRaw(Header(1u << 20) + "0123456789");
    std::string payload;
    FrameLimits limits;
    limits.maxLength = 1u << 20;
    limits.wholeWithin = std::chrono::milliseconds(100);
    EXPECT_EQ(ReadFrame(fds_[0], &payload, limits), FrameStatus::kStalled);
    EXPECT_EQ(payload, "0123456789");
    EXPECT_LT(payload.capacity(), 256u << 10) << "room was taken for what was only announced";

    limits.startBy = Clock::now() + std::chrono::milliseconds(100);
    EXPECT_EQ(ReadFrame(fds_[0], &payload, limits), FrameStatus::kSilent);

    WriteRaw(Header(5) + "hello");
    limits.startBy = kNoDeadline;
    uint32_t asked = 0;
    limits.admit = [&asked](uint32_t length, Clock::time_point) {
        asked = length;
        return false;
    };
    EXPECT_EQ(ReadFrame(fds_[0], &payload, limits), FrameStatus::kNotAdmitted);
    EXPECT_EQ(asked, 5u);
}
}  // namespace
}  // namespace orv::emu
