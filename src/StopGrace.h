// The time that whoever stops something gives those who wait for another process below it.
#pragma once

#include <atomic>

// All such waits during one stop share the time: there may be any number of them, one after the
// other. Locking: any thread.
class CStopGrace {
public:
    void Begin()
    {
        m_iLeft = GRACE;
        m_bBegun = true;
    }
    void End() { m_bBegun = false; }

    // Takes the milliseconds that were waited off what is left. False if nothing is; always true
    // while nobody stops.
    bool Spend(int iWaited)
    {
        if (!m_bBegun)
            return true;
        return m_iLeft > 0 && (m_iLeft -= iWaited) > 0;
    }

    static constexpr int GRACE = 2000;  // milliseconds

private:
    std::atomic<bool> m_bBegun = false;
    std::atomic<int> m_iLeft = 0;  // milliseconds
};
