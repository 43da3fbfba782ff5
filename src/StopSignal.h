// Signals that ask the process to stop.
#pragma once

#include <array>
#include <csignal>

// While it exists, SIGHUP, SIGINT, SIGQUIT and SIGTERM only set a flag, so that whoever polls it
// can stop in good order; one that was ignored before stays ignored. A second signal does what it
// does to any process, in case the good order hangs. Locking: one object at a time; the flag may be
// asked from any thread.
class CStopSignal {
public:
    CStopSignal();
    ~CStopSignal();
    CStopSignal(const CStopSignal&) = delete;
    CStopSignal& operator=(const CStopSignal&) = delete;

    static bool IsRequested();

private:
    static constexpr std::array<int, 4> SIGNALS = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

    std::array<struct sigaction, SIGNALS.size()> m_Before = {};
};
