// Standard input as a terminal that yields each key as it is typed.
#pragma once

#include <termios.h>

// Switches off line editing and echo; the settings come back with the end of the object, also when
// a signal ends the process meanwhile (see RestoreAtOnce). Nothing happens to what is no terminal,
// nor to one that another job has in hand, for a change would stop this process.
// Locking: one object at a time.
class CRawInput {
public:
    CRawInput();
    ~CRawInput();
    CRawInput(const CRawInput&) = delete;
    CRawInput& operator=(const CRawInput&) = delete;

    // False while another job has the terminal: a read would stop this process too.
    bool IsOurs() const { return m_bOurs; }
    bool IsTerminal() const { return m_bTerminal; }

    // True for the key that ends the input where lines are edited, typed then or now.
    bool IsEndKey(char cKey) const
    {
        return cKey == '\0' || cKey == static_cast<char>(m_Settings.c_cc[VEOF]);
    }

    // Gives the settings back if an object has them changed. For signal handlers.
    static void RestoreAtOnce();

private:
    struct termios m_Settings = {};
    bool m_bTerminal = false;
    bool m_bOurs = true;
};
