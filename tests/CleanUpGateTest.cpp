#include "CleanUpGate.h"

#include <atomic>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

namespace {

// A thread that waits at a gate and looks then whether it might pass.
class CWaiter {
public:
    explicit CWaiter(CCleanUpGate& gate)
        : m_hThread([this, &gate] {
              gate.Wait();
              m_bOpenWhenPassed = m_bOpen.load();
          })
    {
    }

    // From here on the thread may pass.
    void Open() { m_bOpen = true; }

    // True if it passed only then.
    bool Join()
    {
        m_hThread.join();
        return m_bOpenWhenPassed;
    }

private:
    std::atomic<bool> m_bOpen = false;
    std::atomic<bool> m_bOpenWhenPassed = false;
    std::thread m_hThread;
};

}  // namespace

TEST(CleanUpGate, NoRun_NobodyWaits)
{
    CCleanUpGate gate;
    gate.Wait();
    {
        const CCleanUpGate::CRun run(gate);
    }
    gate.Wait();
}

TEST(CleanUpGate, Run_IsWaitedFor)
{
    CCleanUpGate gate;
    std::optional<CCleanUpGate::CRun> run(gate);
    CWaiter first(gate);
    CWaiter second(gate);
    {
        const CCleanUpGate::CTelling telling(gate);  // soon over
    }
    first.Open();
    second.Open();
    run.reset();
    EXPECT_TRUE(first.Join());
    EXPECT_TRUE(second.Join());
}

TEST(CleanUpGate, TwoRuns_AreBothWaitedFor)
{
    CCleanUpGate gate;
    std::optional<CCleanUpGate::CRun> first(gate);
    std::optional<CCleanUpGate::CRun> second(gate);
    CWaiter waiter(gate);
    first.reset();
    waiter.Open();
    second.reset();
    EXPECT_TRUE(waiter.Join());
}

TEST(CleanUpGate, HostThatDoesNotComeBack_IsNotWaitedFor)
{
    CCleanUpGate gate;
    const CCleanUpGate::CRun run(gate);
    const CCleanUpGate::CTelling telling(gate);
    gate.Wait();  // this thread stands for the host: nobody else opens the gate
}

TEST(CleanUpGate, HostThatDoesNotComeBack_LetsThemGoWhoWaitAlready)
{
    CCleanUpGate gate;
    const CCleanUpGate::CRun run(gate);
    CWaiter waiter(gate);
    waiter.Open();
    const CCleanUpGate::CTelling telling(gate);
    EXPECT_TRUE(waiter.Join());
}
