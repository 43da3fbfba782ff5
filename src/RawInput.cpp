#include "RawInput.h"

#include <atomic>
#include <unistd.h>

namespace {

// What to give back, and whether there is anything: for a signal handler, which may run on any
// thread and at any time.
struct termios s_Settings = {};
std::atomic<bool> s_bChanged = false;
static_assert(std::atomic<bool>::is_always_lock_free);

}  // namespace

CRawInput::CRawInput() : m_bTerminal(tcgetattr(STDIN_FILENO, &m_Settings) == 0)
{
    if (!m_bTerminal)
        return;
    const pid_t iGroup = tcgetpgrp(STDIN_FILENO);  // fails where it is not our session's terminal
    m_bOurs = iGroup == -1 || iGroup == getpgrp();
    if (!m_bOurs)
        return;
    struct termios raw = m_Settings;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;  // a read of nothing comes back
    raw.c_cc[VTIME] = 0;
    s_Settings = m_Settings;
    s_bChanged = true;
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
}

CRawInput::~CRawInput()
{
    RestoreAtOnce();
    s_bChanged = false;
}

void CRawInput::RestoreAtOnce()
{
    if (s_bChanged)
        tcsetattr(STDIN_FILENO, TCSANOW, &s_Settings);
}
