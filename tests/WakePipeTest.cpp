#include "WakePipe.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestEnvironment.h"

namespace {

std::atomic<int> g_iPollError = 0;  // what the next poll fails with, once
std::atomic<int> g_iPolls = 0;

}  // namespace

// Stands before the C library's: an error that is set waits for the next caller.
extern "C" __attribute__((visibility("default"))) int poll(struct pollfd* pWaits, nfds_t iCount,
                                                           int iTimeout)
{
    g_iPolls++;
    const int iError = g_iPollError.exchange(0);
    if (iError != 0) {
        errno = iError;
        return -1;
    }
    const struct timespec timeout = {iTimeout / 1000, iTimeout % 1000 * 1000000L};
    return static_cast<int>(
        syscall(SYS_ppoll, pWaits, iCount, iTimeout < 0 ? nullptr : &timeout, nullptr, 0));
}

namespace {

class WakePipe : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_wake.Open());
        int iEnds[2] = {-1, -1};
        ASSERT_EQ(pipe2(iEnds, O_CLOEXEC), 0);
        m_read.Reset(iEnds[0]);
        m_write.Reset(iEnds[1]);
    }

    void MakeReadable() { ASSERT_EQ(write(m_write.Get(), "x", 1), 1); }

    CWakePipe m_wake;
    CAutoFd m_read;  // what somebody waits for
    CAutoFd m_write;
};

}  // namespace

TEST_F(WakePipe, NothingHappens_WaitEndsWithItsTime)
{
    EXPECT_TRUE(m_wake.WaitReadable(-1, 0));
    EXPECT_TRUE(m_wake.WaitReadable(-1, 1));
    EXPECT_TRUE(m_wake.WaitReadable(m_read.Get(), 0));
}

TEST_F(WakePipe, FileBecomesReadable_EndsTheWait)
{
    MakeReadable();
    EXPECT_TRUE(m_wake.WaitReadable(m_read.Get(), -1));
    char cByte = 0;
    EXPECT_EQ(read(m_read.Get(), &cByte, 1), 1);  // left for whoever waited
}

TEST_F(WakePipe, Wake_BeforeTheWait_IsNotMissedAndLasts)
{
    m_wake.Wake();
    for (int i = 0; i < 3; i++) {
        EXPECT_FALSE(m_wake.WaitReadable(-1, -1));
        EXPECT_FALSE(m_wake.WaitReadable(m_read.Get(), -1));
    }
    m_wake.Wake();
    EXPECT_FALSE(m_wake.WaitReadable(-1, 0));
}

TEST_F(WakePipe, Wake_GoesBeforeAReadableFile)
{
    MakeReadable();
    m_wake.Wake();
    EXPECT_FALSE(m_wake.WaitReadable(m_read.Get(), -1));
}

TEST_F(WakePipe, Wake_DuringTheWait_EndsIt)
{
    g_iPolls = 0;
    std::atomic<bool> bReadable = true;
    std::thread waiter([&] { bReadable = m_wake.WaitReadable(m_read.Get(), -1); });
    while (g_iPolls == 0)
        std::this_thread::yield();
    m_wake.Wake();
    waiter.join();
    EXPECT_FALSE(bReadable);
    EXPECT_EQ(g_iPolls, 1);  // it rested all the while
}

TEST_F(WakePipe, WaitThatFails_IsTriedAgain)
{
    m_wake.Wake();
    for (const int iError : {EINTR, ENOMEM, EAGAIN}) {
        g_iPollError = iError;
        EXPECT_FALSE(m_wake.WaitReadable(m_read.Get(), -1)) << iError;
        EXPECT_EQ(g_iPollError, 0);
    }
}

TEST(WakePipeDescriptors, Open_TooFewLeft_FailsWithTheErrorAndKeepsNone)
{
    const size_t iDescriptors = CountDescriptors();
    struct rlimit saved = {};
    getrlimit(RLIMIT_NOFILE, &saved);
    for (const int iLeft : {0, 1}) {
        const CAutoFd lowest(dup(STDOUT_FILENO));
        const struct rlimit limit = {static_cast<rlim_t>(lowest.Get() + 1 + iLeft), saved.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
        CWakePipe wake;
        EXPECT_FALSE(wake.Open()) << iLeft;
        EXPECT_EQ(errno, EMFILE);
        setrlimit(RLIMIT_NOFILE, &saved);
    }
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}

TEST(WakePipeDescriptors, Destructor_LetsThemGo)
{
    const size_t iDescriptors = CountDescriptors();
    {
        CWakePipe wake;
        ASSERT_TRUE(wake.Open());
        EXPECT_EQ(CountDescriptors(), iDescriptors + 2);
    }
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}
