// Stands between the code and the system where directories are opened, and tells the time there.
// Its functions take the place of the system's: include it in one source of a program only.
#pragma once

#include <atomic>
#include <cerrno>
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>

inline std::atomic<time_t> g_iClockAhead = 0;    // seconds
inline std::atomic<unsigned int> g_iOpened = 0;  // calls of opendir
inline std::atomic<int> g_iOpenError = 0;        // what opendir fails with, while it is set

// A directory was at rest when it was opened if its times were old by then. They cannot be set to
// the past, all of them; so the program's clock is set to the future, as long as this lives.
class CClockAhead {
public:
    CClockAhead() { g_iClockAhead = 100; }
    ~CClockAhead() { g_iClockAhead = 0; }
    CClockAhead(const CClockAhead&) = delete;
    CClockAhead& operator=(const CClockAhead&) = delete;
};

// What opendir fails with, as long as this lives.
class COpenFailure {
public:
    explicit COpenFailure(int iError) { g_iOpenError = iError; }
    ~COpenFailure() { g_iOpenError = 0; }
    COpenFailure(const COpenFailure&) = delete;
    COpenFailure& operator=(const COpenFailure&) = delete;
};

// The clock that file systems take their times from moves in steps. Under a clock that is ahead, a
// change within the step of the one before it would not show: this waits for the next step.
inline void WaitForNextTimestamp()
{
    struct timespec before = {};
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME_COARSE, &before);
    do
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
    while (now.tv_sec == before.tv_sec && now.tv_nsec == before.tv_nsec);
}

extern "C" time_t time(time_t* pResult) noexcept
{
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const time_t iNow = now.tv_sec + g_iClockAhead;
    if (pResult != nullptr)
        *pResult = iNow;
    return iNow;
}

extern "C" DIR* opendir(const char* pcPath)
{
    g_iOpened++;
    if (g_iOpenError != 0) {
        errno = g_iOpenError;
        return nullptr;
    }
    using Function = DIR* (*)(const char*);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "opendir"))(pcPath);
}
