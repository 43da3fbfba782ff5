// A thread of which a test wants to know whether it waits.
#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <sched.h>
#include <string>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestEnvironment.h"

// Joined with the object, which whoever lets the thread go on has to outlive.
class CWatchedThread {
public:
    explicit CWatchedThread(const std::function<void()>& run)
        : m_thread([this, run] {
              m_iID = gettid();
              run();
              m_bDone = true;
              m_done.set_value();
          })
    {
    }
    ~CWatchedThread() { Join(); }
    CWatchedThread(const CWatchedThread&) = delete;
    CWatchedThread& operator=(const CWatchedThread&) = delete;

    bool IsDone() const { return m_bDone; }

    // Waits until the thread is asleep or at its end; true if it is asleep.
    bool WaitUntilAsleep() const
    {
        while (!m_bDone && GetState() != 'S')
            sched_yield();
        return !m_bDone;
    }

    // A failure if the thread does not come to its end.
    void WaitUntilDone() const
    {
        EXPECT_EQ(m_isDone.wait_for(std::chrono::seconds(20)), std::future_status::ready)
            << "The thread does not come to its end";
    }

    // Whether a program that the thread has started is there.
    bool HasChild() const { return !ReadWholeFile(GetFolder() + "/children").empty(); }

    // Returns once the thread has got the signal.
    void Signal(int iSignal)
    {
        EXPECT_EQ(pthread_kill(m_thread.native_handle(), iSignal), 0);
        while (!m_bDone && HasPendingSignal())
            sched_yield();
    }

    void Join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    bool HasPendingSignal() const
    {
        const std::string sStatus = ReadWholeFile(GetFolder() + "/status");
        return sStatus.find("\nSigPnd:\t") != std::string::npos &&
               sStatus.find("\nSigPnd:\t0000000000000000\n") == std::string::npos;
    }

    std::string GetFolder() const { return "/proc/self/task/" + std::to_string(m_iID); }

    char GetState() const
    {
        const std::string sStat = m_iID == 0 ? "" : ReadWholeFile(GetFolder() + "/stat");
        const size_t iName = sStat.rfind(") ");
        return iName == std::string::npos ? '?' : sStat[iName + 2];
    }

    std::atomic<pid_t> m_iID = 0;
    std::atomic<bool> m_bDone = false;
    std::promise<void> m_done;
    const std::future<void> m_isDone = m_done.get_future();
    std::thread m_thread;  // last: it uses the others
};
