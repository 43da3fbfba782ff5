#include "StopSignal.h"

#include <atomic>
#include <ctime>

#include "RawInput.h"

namespace {

constexpr long PATIENCE = 1000;  // milliseconds

// When the first signal came, in milliseconds of the system's uptime and never 0; 0 before.
std::atomic<long> s_iRequested = 0;
static_assert(std::atomic<long>::is_always_lock_free);

long GetUptime()
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000 + 1;
}

void Request(int iSignal)
{
    long iFirst = 0;
    if (s_iRequested.compare_exchange_strong(iFirst, GetUptime()))
        return;
    if ((iSignal != SIGINT && iSignal != SIGQUIT) || GetUptime() - iFirst < PATIENCE)
        return;
    CRawInput::RestoreAtOnce();
    signal(iSignal, SIG_DFL);
    raise(iSignal);
}

}  // namespace

CStopSignal::CStopSignal()
{
    s_iRequested = 0;
    struct sigaction action = {};
    action.sa_handler = Request;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (size_t i = 0; i < SIGNALS.size(); i++) {
        if (sigaction(SIGNALS[i], nullptr, &m_Before[i]) == 0 && m_Before[i].sa_handler != SIG_IGN)
            sigaction(SIGNALS[i], &action, nullptr);
    }
}

CStopSignal::~CStopSignal()
{
    for (size_t i = 0; i < SIGNALS.size(); i++)
        sigaction(SIGNALS[i], &m_Before[i], nullptr);
}

bool CStopSignal::IsRequested()
{
    return s_iRequested != 0;
}
