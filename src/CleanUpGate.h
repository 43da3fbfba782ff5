// Lets operations wait for a clean-up that takes long and tells the host on its way.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// A mutex would not do: the host that is told may be waiting for one of those who wait here.
// Locking: any thread. None of the operations calls anything under the gate's own mutex.
class CCleanUpGate {
    // Counts for the length of a block.
    template <int CCleanUpGate::*COUNT>
    class CScope {
    public:
        explicit CScope(CCleanUpGate& gate) : m_gate(gate) { m_gate.Change(COUNT, 1); }
        ~CScope() { m_gate.Change(COUNT, -1); }
        CScope(const CScope&) = delete;
        CScope& operator=(const CScope&) = delete;

    private:
        CCleanUpGate& m_gate;
    };

    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_iRuns = 0;
    int m_iTellings = 0;
    std::chrono::steady_clock::time_point m_since;  // when one of them changed

    void Change(int CCleanUpGate::*piCount, int iBy)
    {
        const std::lock_guard lock(m_mutex);
        this->*piCount += iBy;
        m_since = std::chrono::steady_clock::now();
        m_changed.notify_all();
    }

public:
    // A clean-up, for the length of a block; and within it, around what calls the host.
    using CRun = CScope<&CCleanUpGate::m_iRuns>;
    using CTelling = CScope<&CCleanUpGate::m_iTellings>;

    // Returns once no clean-up runs, or the host has been told something for PATIENCE without
    // coming back: it may be waiting for the caller.
    void Wait()
    {
        std::unique_lock lock(m_mutex);
        while (m_iRuns > 0) {
            if (m_iTellings == 0)
                m_changed.wait(lock);
            else if (std::chrono::steady_clock::now() >= m_since + PATIENCE)
                return;
            else
                m_changed.wait_until(lock, m_since + PATIENCE);
        }
    }

    static constexpr std::chrono::milliseconds PATIENCE{500};
};
