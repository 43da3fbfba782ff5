// A rest for a thread that has nothing else to wait for.
#pragma once

#include <ctime>

// Returns after iMilliseconds, or earlier if a signal comes in.
inline void Pause(int iMilliseconds)
{
    const struct timespec rest = {iMilliseconds / 1000, iMilliseconds % 1000 * 1000000L};
    nanosleep(&rest, nullptr);
}
