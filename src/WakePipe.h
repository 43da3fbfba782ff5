// A way to wake a thread that waits for a descriptor.
#pragma once

#include "AutoFd.h"

// A pipe that becomes readable once and for all when Wake is called. The waiting thread polls it
// beside its own descriptor: closing or shutting down a listening or datagram socket wakes a waiter
// on one system and not on another, a pipe does on all.
// Locking: Wake may be called from any thread.
class CWakePipe {
public:
    // False, with errno set, if there is no descriptor left.
    bool Open();
    void Wake();

    // Waits until iFile (-1 for none) is readable or Wake was called, at most iTimeout milliseconds
    // (-1 for ever). False if Wake was called.
    bool WaitReadable(int iFile, int iTimeout);

private:
    CAutoFd m_read;
    CAutoFd m_write;
};
