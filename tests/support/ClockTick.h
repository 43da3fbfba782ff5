// The clock that stamps files.
#pragma once

#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "AutoFd.h"

// Waits until a change of the file would give it another time: the clock of the file system goes
// in ticks of some milliseconds.
inline void WaitForClockTick(int iFile)
{
    struct stat info = {};
    ASSERT_EQ(fstat(iFile, &info), 0);
    struct timespec now = {};
    do {
        sched_yield();
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
    } while (now.tv_sec < info.st_mtim.tv_sec ||
             (now.tv_sec == info.st_mtim.tv_sec && now.tv_nsec <= info.st_mtim.tv_nsec));
}

inline void WaitForClockTick(const std::string& sPath)
{
    const CAutoFd file(open(sPath.c_str(), O_RDONLY | O_CLOEXEC));
    WaitForClockTick(file.Get());
}
