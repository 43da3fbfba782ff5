#include "RawInput.h"

#include <atomic>
#include <unistd.h>

namespace {

std::atomic<const struct termios*> s_pSettings = nullptr;  // to give back; null if there are none
static_assert(std::atomic<const struct termios*>::is_always_lock_free);

}  // namespace

CRawInput::CRawInput() : m_bTerminal(tcgetattr(STDIN_FILENO, &m_Settings) == 0)
{
    if (!m_bTerminal)
        return;
    m_bOurs = tcgetpgrp(STDIN_FILENO) == getpgrp();
    if (!m_bOurs)
        return;
    struct termios raw = m_Settings;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    s_pSettings = &m_Settings;
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
}

CRawInput::~CRawInput()
{
    RestoreAtOnce();
    s_pSettings = nullptr;
}

void CRawInput::RestoreAtOnce()
{
    if (const struct termios* pSettings = s_pSettings; pSettings != nullptr)
        tcsetattr(STDIN_FILENO, TCSANOW, pSettings);
}
