// A way to wake a thread that waits for a descriptor.
#pragma once

#include <cstddef>
#include <poll.h>
#include <vector>

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

    // The same for several descriptors, as poll takes them; an interest in reading is the caller's
    // to set, and revents tells what came of it.
    bool WaitReadable(std::vector<struct pollfd>* pvWaits, int iTimeout);

private:
    bool Wait(struct pollfd* pWaits, size_t iCount, int iTimeout);

    CAutoFd m_read;
    CAutoFd m_write;
};
