#include "StopSignal.h"

#include "RawInput.h"

namespace {

volatile sig_atomic_t s_bRequested = 0;

void Request(int iSignal)
{
    if (s_bRequested == 0) {
        s_bRequested = 1;
        return;
    }
    CRawInput::RestoreAtOnce();
    signal(iSignal, SIG_DFL);
    raise(iSignal);
}

}  // namespace

CStopSignal::CStopSignal()
{
    s_bRequested = 0;
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
    return s_bRequested != 0;
}
