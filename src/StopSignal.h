// Signals that ask the process to stop.
#pragma once

#include <array>
#include <csignal>

// While it exists, SIGHUP, SIGINT, SIGQUIT and SIGTERM only set a flag, so that whoever polls it
// can stop in good order; one that was ignored before stays ignored. They may come several at once,
// as they do when a terminal closes. Who types SIGINT or SIGQUIT again, a second later or more,
// does not want to wait for the good order: then it does what it does to any process. Locking: one
// object at a time; the flag may be asked from any thread.
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
