// Lets operations wait for a clean-up that takes long and tells the host on its way.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// A mutex would not do: the host that is told may be waiting for one of those who wait here.
// Locking: any thread. None of the operations calls anything under the gate's own mutex.
class CCleanUpGate {
public:
    // A clean-up, for the length of a block.
    class CRun {
    public:
        explicit CRun(CCleanUpGate& gate) : m_gate(gate) { m_gate.Change(&State::iRuns, 1); }
        ~CRun() { m_gate.Change(&State::iRuns, -1); }
        CRun(const CRun&) = delete;
        CRun& operator=(const CRun&) = delete;

    private:
        CCleanUpGate& m_gate;
    };

    // Within a run, around what calls the host.
    class CTelling {
    public:
        explicit CTelling(CCleanUpGate& gate) : m_gate(gate)
        {
            m_gate.Change(&State::iTellings, 1);
        }
        ~CTelling() { m_gate.Change(&State::iTellings, -1); }
        CTelling(const CTelling&) = delete;
        CTelling& operator=(const CTelling&) = delete;

    private:
        CCleanUpGate& m_gate;
    };

    // Returns once no clean-up runs, or the host has been told something for PATIENCE without
    // coming back: it may be waiting for the caller.
    void Wait()
    {
        std::unique_lock lock(m_mutex);
        while (m_state.iRuns > 0) {
            if (m_state.iTellings == 0)
                m_changed.wait(lock);
            else if (std::chrono::steady_clock::now() >= m_since + PATIENCE)
                return;
            else
                m_changed.wait_until(lock, m_since + PATIENCE);
        }
    }

    static constexpr std::chrono::milliseconds PATIENCE{500};

private:
    struct State {
        int iRuns = 0;
        int iTellings = 0;
    };

    void Change(int State::*piCount, int iBy)
    {
        const std::lock_guard lock(m_mutex);
        m_state.*piCount += iBy;
        m_since = std::chrono::steady_clock::now();
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    State m_state;
    std::chrono::steady_clock::time_point m_since;  // when the state was changed
};
